#!/usr/bin/env bash
# One case of the table below: update-device, signed in, against a real
# lighttpd in a device root: its exit status, a line of its output, and the
# device left as it should be (never locked by the client).
set -uo pipefail
. "$(dirname "$0")/../e2e/lib.sh"
name=$1

#  case          | before         | during      | client options         | status | output has (texts split by ';')
table="
success          | slow_preupdate | play_reboot | --timeout 30 --limit-rate 4M | 0 | of 8.0 MiB; the device is back
installer_fails  | installer_fails | -          |                        | 25 | (error 5): installation failed
disabled         | disabled       | -           |                        | 29 | (error 9): update feature is disabled
busy             | busy           | -           |                        | 7  | device busy
wrong_password   | wrong_password | -           |                        | 5  | wrong user or password
cut_upload       | -              | cut_upload  | --limit-rate 4M        | 8  | connection lost during the upload
two_devices      | second_device  | -           | --no-wait --parallel 2 | 1  | device error
unreachable      | no_server      | -           |                        | 4  | device unreachable
no_package       | no_package     | -           |                        | 3  | cannot read the package
refused_early    | refused_early  | -           |                        | 3  | is empty"
IFS='|' read -r _ before during options status expected < <(grep "^$name " <<<"$table")
trim() { xargs <<<"$1"; }
before=$(trim "$before") during=$(trim "$during") status=$(trim "$status") expected=$(trim "$expected")

has_upload_file() { compgen -G "$ROOT/var-tmp/lighttpd-upload-*" >/dev/null; }
log_has() { grep -q -- "$1" "$ROOT/var-log/updater-cgi.log" 2>/dev/null; }
recorded() { grep -q -- "$1" "$ROOT/fake/record" 2>/dev/null; }

device_init "client_$name"
package $((8 << 20))
pkg=$ROOT/pkg
if [ "$before" != no_server ]; then device_start || exit 1; fi
auth=${AUTH:-} && urls=("${BASE:-}") user=${auth%%:*} password=${auth#*:}
trap 'device_stop; stop_second' EXIT
stop_second() { :; }

# --- before the client, or while it runs -------------------------------------
-() { :; }
installer_fails() { echo 1 >"$ROOT/fake/installer-status"; }
disabled() { echo false >"$ROOT/fake/uci-value"; }
busy() { : >"$ROOT/var-tmp/lighttpd-upload-other" && progress >/dev/null; }
wrong_password() { password=wrong; }
no_server() { urls=("http://127.0.0.1:1"); }
no_package() { pkg=$ROOT/missing.bin; }
# Each refused with one line (and a hint to --help for a usage error) before
# any request: the device's /var/log stays empty. The table's own run: an
# empty package.
refused_early() {
    local bad=$ROOT/bad && mkdir -p "$bad" && : >"$bad/empty.pkg" && pkg=$bad/empty.pkg
    printf '%s/update/   # station 1\n\nftp://%s\n' "$BASE" "${BASE#http://}" >"$bad/devices"
    echo 'machine other.lan login a password b' >"$bad/netrc"
    while IFS='|' read -r want text args; do
        eval "set -- $args"
        UPDATE_DEVICE_PASSWORD=$password "$CLIENT_BIN" "$@" >"$bad/out" 2>&1
        check "$name: $text" "$want yes" "$? $(wc -l <"$bad/out") $(grep -qF -- "$text" "$bad/out" && echo yes)"
    done <<ROWS
2 2|devices line 3: not an http or https URL|--devices $bad/devices $ROOT/pkg
2 2|--user takes a name only|-u $user:$password $BASE $ROOT/pkg
2 2|unknown option --bogus|-u $user --bogus $BASE $ROOT/pkg
2 2|no host in http:///update/|-u $user http:///update/ $ROOT/pkg
2 2|has no entry for 127.0.0.1|--netrc-file $bad/netrc $BASE $ROOT/pkg
3 1|is not a regular file|-u $user $BASE $bad
ROWS
}
slow_preupdate() { echo 1 >"$ROOT/fake/preupdate-delay"; }
# The lock must hold to the end: a lock-state request of the client while the
# POST starts (the preupdate.sh second) would have freed it. The fake reboot
# only records: the device goes down as it asks.
play_reboot() {
    wait_for 60 log_has 'firmware successfully loaded'
    check "$name: the lock held through the update" STATUS_BUSY "$(lock_state)"
    wait_for 60 recorded '^reboot' && sleep 0.5 && device_reboot 2
}
cut_upload() {  # a progress poll takes the lock, then the connection goes
    wait_for 20 has_upload_file && progress >/dev/null &&
        cp "$ROOT/var-log/updater-cgi.lock" "$ROOT/lock-before-cut" &&
        ss -K dst 127.0.0.1 dport = ":$PORT" >/dev/null 2>&1
}
second_device() {  # a second device with the same user, from a devices file, whose installer fails
    local first=$ROOT base=$BASE
    device_init "client_${name}_b" && echo "$AUTH" >"$ROOT/credentials" && installer_fails
    device_start || exit 1
    printf '# the second device\n%s/update/\n' "$BASE" >"$ROOT/devices"
    urls+=(--devices "$ROOT/devices") second=$ROOT ROOT=$first BASE=$base
    stop_second() { ROOT=$second device_stop; }
}

$before
# shellcheck disable=SC2086 # options are words
UPDATE_DEVICE_PASSWORD=$password "$CLIENT_BIN" ${user:+--user "$user"} $options "${urls[@]}" "$pkg" \
    >"$ROOT/client.out" 2>&1 &
client=$!
$during
wait "$client"
check "$name: exit status" "$status" "$?"
IFS=';' read -ra texts <<<"$expected"
for text in "${texts[@]}"; do
    text=$(trim "$text") && check_true "$name: output has '$text'" grep -qF -- "$text" "$ROOT/client.out"
done

# --- what the device must show afterwards -------------------------------------
case $name in
    success)
        check "$name: the installer got the package" "$installed" "$(grep '^updater' "$ROOT/fake/record")"
        check "$name: each entry shown once" "" "$(grep '^\[' "$ROOT/client.out" | sort | uniq -d)" ;;
    busy | wrong_password)
        check "$name: nothing was posted" "" "$(grep '^uci' "$ROOT/fake/record")" ;;&
    busy)
        check "$name: the other upload keeps its lock" STATUS_BUSY "$(lock_state)" ;;
    cut_upload)
        check "$name: nothing was installed" "" "$(grep '^updater' "$ROOT/fake/record")"
        check_true "$name: the device was locked when the connection went" test -e "$ROOT/lock-before-cut" ;;
    refused_early)
        check "$name: no request reached the device" "" "$(ls "$ROOT/var-log")" ;;
    two_devices)
        check_true "$name: a table row for each" grep -qE "^${BASE#http://} +success" "$ROOT/client.out"
        check "$name: the second device failed" 1 "$(grep -cE '^127.* +device error +.*error 5' "$ROOT/client.out")" ;;
esac
if [ "$before" != busy ] && [ "$before" != no_server ]; then
    check "$name: no lock left" no "$([ -e "$ROOT/var-log/updater-cgi.lock" ] && echo yes || echo no)"
fi
[ "$failed" -eq 0 ] || cat "$ROOT/client.out"
finish
