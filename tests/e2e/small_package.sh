#!/usr/bin/env bash
# lighttpd keeps a body under about 64 KiB in memory: no upload file ever
# appears, no progress request takes the lock, and the update runs without
# it, correctly all the same.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
device_init small_package
echo 2 >"$ROOT/fake/installer-delay"
device_start || exit 1
trap 'touch "$ROOT/stop-sampling"; device_stop' EXIT
pkg=$ROOT/package.bin
make_package "$pkg" $((48 * 1024))

sample_files "$ROOT/samples" &
sampler=$!
progress >/dev/null
poll_progress "$ROOT/polls" &
poller=$!
# Slowly, to show that it is the size, not the speed, that keeps it in memory.
curl -sS -o /dev/null -w '%{http_code}' --limit-rate 16K \
    -F "package=@$pkg;filename=small.pkg" "$CGI" >"$ROOT/post.code" &
post=$!
check_true "the update reaches the installer" wait_for 20 log_has 'installing package file'
check "lock state while it installs" STATUS_FREE "$(lock_state)"
wait "$post"
touch "$ROOT/stop-polls" "$ROOT/stop-sampling"
wait "$poller" "$sampler"

check "POST answers 200" 200 "$(cat "$ROOT/post.code")"
check "no upload file ever appeared" "" "$(awk '$3 == 1' "$ROOT/samples" | head -n 1)"
check "the lock was never taken" "" "$(awk '$2 == 1' "$ROOT/samples" | head -n 1)"
check "the installer got the package" \
    "updater -f /tmp/updater-cgi-temp.pkg sha256=$(sha256sum <"$pkg" | cut -d' ' -f1) size=$((48 * 1024))" \
    "$(grep '^updater ' "$ROOT/fake/record")"
check "the saved log: every entry but the lock's" "[T:1] waiting for file ...<br>
[T:40] reassembling data ...<br>
[T:50] package file received<br>
[T:60] stopping the application ...<br>
[T:80] installing package file ...<br>
[T:100] update completed<br>
[T:100] <font color=#2020ff><b>update completed, firmware successfully loaded<br>" \
    "$(entries <"$ROOT/tolven-local/updater-cgi.log")"
check "the device was asked to reboot" reboot "$(tail -n 1 "$ROOT/fake/record")"
finish
