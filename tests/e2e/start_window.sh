#!/usr/bin/env bash
# The start-of-update window: lighttpd hands the POST process its upload file
# already unlinked, so until "sudo /usr/local/sbin/preupdate.sh" has run and
# state 2 is written, a lock-state request sees lock held, no upload file,
# state 1: a stale lock. This documents that a poll inside the window loses
# the lock for the rest of the update (the page never sends one then), and
# measures the window with a 1 s preupdate script (the demo's) and an instant one.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
device_init start_window
echo 1 >"$ROOT/fake/installer-status" # an error ending is shorter than the pause
echo 2 >"$ROOT/fake/installer-delay"
device_start || exit 1
trap 'touch "$ROOT/stop-sampling"; device_stop' EXIT
pkg=$ROOT/package.bin
make_package "$pkg" $((2 * 1048576))

# Starts an update whose upload lasts about 2 s and takes the lock as the page
# does, with the sampler running.
start_update() {
    rm -rf "${ROOT:?}"/var-log/* "$ROOT/fake/record"
    sample_files "$ROOT/samples" &
    sampler=$!
    progress >/dev/null
    curl -sS --limit-rate 1M -o /dev/null -F "package=@$pkg" "$CGI" &
    post=$!
    wait_for 10 has_upload_file && progress >/dev/null
}
end_update() {
    wait "$post"
    touch "$ROOT/stop-sampling"
    wait "$sampler"
}

echo 1 >"$ROOT/fake/preupdate-delay"
start_update
check_true "the lock is taken during the upload" log_has 'receiving package file'
check_true "the POST process runs preupdate.sh" wait_for 10 recorded '^preupdate.sh'
check "inside the window: no upload file" no "$(has_upload_file && echo yes || echo no)"
check "inside the window: state 1" 1 "$(cat "$ROOT/var-log/updater-cgi.status")"
check "a lock-state request inside the window answers" STATUS_FREE "$(lock_state)"
check "and removes the lock of the running update" no \
    "$(test -e "$ROOT/var-log/updater-cgi.lock" && echo yes || echo no)"
check_true "the update goes on" wait_for 10 log_has 'installing package file'
check "while it installs, lock state answers" STATUS_FREE "$(lock_state)"
end_update
check_true "it ends as before" grep -q 'ERROR: installation failed' \
    "$ROOT/tolven-local/updater-cgi.log"
slow=$(window_ms "$ROOT/samples")
echo "     window with a 1 s preupdate.sh: ${slow:-?} ms"
check_true "the window spans preupdate.sh" test "${slow:-0}" -ge 1000

echo 0 >"$ROOT/fake/preupdate-delay"
start_update
end_update
fast=$(window_ms "$ROOT/samples")
echo "     window with an instant preupdate.sh: ${fast:-?} ms"
check_true "the window was measured" test -n "$fast"
check_true "an instant preupdate.sh shortens it" test "${fast:-9999}" -lt "${slow:-0}"
finish
