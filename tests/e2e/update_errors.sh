#!/usr/bin/env bash
# Updates that end in an error, through the web server: updates disabled, a
# request that is no form, a form without a file, an installer failure. Each
# answers 200 with an empty body, shows its error entry to the polls while it
# lasts, keeps the log in /tolven/local and leaves the device free.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
device_init update_errors
device_start || exit 1
trap device_stop EXIT
pkg=$ROOT/package.bin
make_package "$pkg" 4096

# Runs one update with the given curl arguments and checks what every error
# ending has in common; the caller checks the saved log.
run_failing_update() {  # name curl-args...
    local name=$1
    shift
    rm -rf "${ROOT:?}"/var-log/* "$ROOT"/tolven-local/* "$ROOT/fake/record"
    progress >/dev/null # starts the log, as the page's first poll does
    poll_progress "$ROOT/polls" &
    local poller=$!
    local code
    code=$(curl -sS -o "$ROOT/post.body" -w '%{http_code}' "$@" "$CGI")
    touch "$ROOT/stop-polls"
    wait "$poller"
    check "$name: POST answers 200" 200 "$code"
    check "$name: with an empty body" 0 "$(stat -c %s "$ROOT/post.body")"
    saved=$(entries <"$ROOT/tolven-local/updater-cgi.log")
    check "$name: a poll saw the error entry" "$(tail -n 1 <<<"$saved")" \
        "$(tail -n 1 "$ROOT/polls" | entries | tail -n 1)"
    # Every request opens the trace at start-up, so the polls may have
    # started a new one; the other three files must be gone.
    check "$name: lock, status and log are gone" "" \
        "$(ls "$ROOT/var-log" | grep -v '^updater-cgi.debug$')"
    check "$name: the device is free" STATUS_FREE "$(lock_state)"
}

echo false >"$ROOT/fake/uci-value"
run_failing_update disabled -F "package=@$pkg"
check "disabled: saved log" "[T:1] waiting for file ...<br>
[T] ERROR: update feature is disabled<br>" "$saved"
check_true "disabled: the saved trace tells why" \
    grep -q 'security.update.enabled=false' "$ROOT/tolven-local/updater-cgi.debug"
check "disabled: nothing was installed" "" "$(grep -E '^(application|updater) ' "$ROOT/fake/record")"
echo true >"$ROOT/fake/uci-value"

run_failing_update "not a form" -H 'Content-Type: application/octet-stream' \
    --data-binary "@$pkg"
check "not a form: saved log" "[T:1] waiting for file ...<br>
[T] ERROR: bad/malformed http header<br>" "$saved"

run_failing_update "no file in the form" -F "name=value"
check "no file in the form: saved log" "[T:1] waiting for file ...<br>
[T:40] reassembling data ...<br>
[T:40] ERROR: upload aborted<br>" "$saved"

echo 1 >"$ROOT/fake/installer-status"
run_failing_update "installer fails" -F "package=@$pkg"
check "installer fails: saved log" "[T:1] waiting for file ...<br>
[T:40] reassembling data ...<br>
[T:50] package file received<br>
[T:60] stopping the application ...<br>
[T:80] installing package file ...<br>
[T:80] ERROR: installation failed<br>" "$saved"
check "installer fails: the package stays in /tmp" "$(sha256sum <"$pkg")" \
    "$(sha256sum <"$ROOT/tmp/updater-cgi-temp.pkg")"
check_true "installer fails: the saved trace has the command" \
    grep -q 'install command: /usr/local/sbin/updater -f' "$ROOT/tolven-local/updater-cgi.debug"
check "installer fails: no reboot" "" "$(grep '^reboot' "$ROOT/fake/record")"
finish
