#!/usr/bin/env bash
# static-program-test.sh <device-root launcher> <root dir> <program> [emulator words...]
# The static program is built apart from the one the other tests run, so it
# gets its own run through the paths a static C library can get wrong: the
# command face, and a whole upload (watchdog timer thread, shell commands)
# ending at a failing installer, in a device root like every other test.
set -euo pipefail
launcher=$1 root=$2 program=$3
shift 3
emulator=("$@")
fail() { echo "FAIL: $*"; exit 1; }
program=$(realpath "$program")
in_root() { "$launcher" --root "$root" --bind-ro "$(dirname "$program")" "$@"; }

version=$(in_root --fresh -- "${emulator[@]}" "$program" --version)
[ "$version" = "Tolven Updater tool, version 2.03 27.01.2015" ] || fail "version line: '$version'"

boundary=----static-variant-boundary
package=$root/package
body=$root/body
# Line ends, lone CRs and a near-boundary inside the package must pass through.
{ seq 1 20000; printf 'a\r\nb\rc\n--%s\r\n' "${boundary%?}"; } >"$package"
{
    printf -- '--%s\r\n' "$boundary"
    printf 'Content-Disposition: form-data; name="file"; filename="fw.pkg"\r\n'
    printf 'Content-Type: application/octet-stream\r\n\r\n'
    cat "$package"
    printf '\r\n--%s--\r\n' "$boundary"
} >"$body"
printf true >"$root/fake/uci-value"
printf 1 >"$root/fake/installer-status"

status=0
in_root --env REQUEST_METHOD=POST --env "CONTENT_LENGTH=$(stat -c %s "$body")" \
    --env "CONTENT_TYPE=multipart/form-data; boundary=$boundary" \
    -- "${emulator[@]}" "$program" <"$body" >"$root/out" || status=$?
[ "$status" = 251 ] || fail "exit status $status, expected 251 (installation failed)"
want="updater -f /tmp/updater-cgi-temp.pkg sha256=$(sha256sum <"$package" | cut -d' ' -f1) size=$(stat -c %s "$package")"
grep -qxF -- "$want" "$root/fake/record" || { cat "$root/fake/record"; fail "installer did not get the package"; }
grep -q 'ERROR: ' "$root/tolven-local/updater-cgi.log" || fail "no error entry in the saved log"
echo "static program: ok"
