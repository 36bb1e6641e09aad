#!/usr/bin/env bash
# Clients that go away. One that aborts during the upload: lighttpd deletes
# its upload file at once and never starts the program, and the next
# lock-state request clears the lock a progress request took for it. One that
# closes the connection while the update runs (here in the pause after the
# success entry): the program gets no signal and the update runs to its end.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
device_init client_leaves
device_start || exit 1
trap device_stop EXIT
pkg=$ROOT/package.bin
make_package "$pkg" $((4 * 1048576))
lock_held() { [ -e "$ROOT/var-log/updater-cgi.lock" ]; }

progress >/dev/null
curl -sS --limit-rate 1M --max-time 2 -o /dev/null -F "package=@$pkg" "$CGI" 2>/dev/null &
post=$!
wait_for 10 has_upload_file && progress >/dev/null
check "abort: a progress request took the lock" 1 "$(cat "$ROOT/var-log/updater-cgi.lock")"
wait "$post"
check "abort: curl gave up during the upload (timeout)" 28 $?
check_true "abort: lighttpd deletes the upload file" wait_for 5 eval '! has_upload_file'
sleep 0.5
check "abort: the program was never started" "" "$(grep preupdate "$ROOT/fake/record" 2>/dev/null)"
check "abort: the lock is left behind, state 1" "yes 1" \
    "$(lock_held && echo yes || echo no) $(cat "$ROOT/var-log/updater-cgi.status")"
check "abort: one lock-state request frees the device" STATUS_FREE "$(lock_state)"
check "abort: lock gone, state 0" "no " \
    "$(lock_held && echo yes || echo no) $(cat "$ROOT/var-log/updater-cgi.status")"

rm -rf "${ROOT:?}"/var-log/* "$ROOT/fake/record"
progress >/dev/null
curl -sS --limit-rate 2M -o /dev/null -F "package=@$pkg" "$CGI" &
post=$!
wait_for 10 has_upload_file && progress >/dev/null
check_true "leave: the success entry" wait_for 30 log_has 'firmware successfully loaded'
kill "$post"
wait "$post"
left_at=$(date +%s%N)
check "leave: the update still holds the lock" STATUS_BUSY "$(lock_state)"
check_true "leave: the lock is released after the pause" wait_for 15 eval '! lock_held'
waited_ms=$((($(date +%s%N) - left_at) / 1000000))
check_true "leave: that was the pause (${waited_ms} ms after leaving)" test "$waited_ms" -ge 8000
check_true "leave: the log is saved" wait_for 5 grep -q 'firmware successfully loaded' \
    "$ROOT/tolven-local/updater-cgi.log"
check_true "leave: the device was asked to reboot" wait_for 5 recorded '^reboot'
finish
