#!/usr/bin/env bash
# A 64 MiB package posted by curl as a form, slowly enough for polls to see
# lighttpd's upload files: the whole update through the real web server.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
device_init update_64mib
echo 1 >"$ROOT/fake/installer-delay"
pkg=$ROOT/package.bin
# As on the device, the web server and so the program run as an ordinary
# user: the device commands go through sudo.
device_start --uid 1000 || exit 1
trap 'device_stop; rm -f "$pkg"' EXIT

make_package "$pkg" $((64 * 1048576))
digest=$(sha256sum <"$pkg" | cut -d' ' -f1)

check "idle progress request starts the log" \
    '[000.000:1] waiting for file ...<br>' "$(progress)"

# 16 MiB/s: about four seconds of upload.
curl -sS --limit-rate 16M -o "$ROOT/post.body" -w '%{http_code}' \
    -F "package=@$pkg;filename=firmware.pkg" "$CGI" >"$ROOT/post.code" &
post=$!

check_true "lighttpd keeps the arriving body in /var/tmp" wait_for 10 has_upload_file
answer=$(progress)
check "the progress request during the upload takes the lock" \
    '[000.000:1] waiting for file ...<br>[000.000:10] receiving package file ...<br>' \
    "$answer"
check "state 1 while receiving" 1 "$(cat "$ROOT/var-log/updater-cgi.status")"
check "lock file holds 1" 1 "$(cat "$ROOT/var-log/updater-cgi.lock")"
check "lock state during the upload" STATUS_BUSY "$(lock_state)"
check "a later progress request only prints the log" "$answer" "$(progress)"
check "lock state still busy" STATUS_BUSY "$(lock_state)"
check_true "upload still in progress after these requests" has_upload_file

check_true "success entry within 60 s" wait_for 60 log_has 'firmware successfully loaded'
success_at=$(date +%s%N)
check "lock state in the pause after success" STATUS_BUSY "$(lock_state)"
lock_held() { [ -e "$ROOT/var-log/updater-cgi.lock" ]; }
check_true "lock removed after the pause" wait_for 20 eval '! lock_held'
unlocked_at=$(date +%s%N)
pause_ms=$(((unlocked_at - success_at) / 1000000))
echo "     pause between success entry and unlock: $pause_ms ms"
check_true "the pause lasts about 10 s" test "$pause_ms" -ge 9500

wait "$post"
check "POST answers 200" 200 "$(cat "$ROOT/post.code")"
check "POST answers with an empty body" 0 "$(stat -c %s "$ROOT/post.body")"
check "installer got exactly the file's bytes" \
    "updater -f /tmp/updater-cgi-temp.pkg sha256=$digest size=$((64 * 1048576))" \
    "$(grep '^updater ' "$ROOT/fake/record")"
check "package file removed after installation" no \
    "$(test -e "$ROOT/tmp/updater-cgi-temp.pkg" && echo yes || echo no)"
check "final log, every entry in order" \
    "[T:1] waiting for file ...<br>
[T:10] receiving package file ...<br>
[T:40] reassembling data ...<br>
[T:50] package file received<br>
[T:60] stopping the application ...<br>
[T:80] installing package file ...<br>
[T:100] update completed<br>
[T:100] <font color=#2020ff><b>update completed, firmware successfully loaded<br>" \
    "$(progress | entries)"
check "lock state free after the pause" STATUS_FREE "$(lock_state)"
check "the log is kept in /tolven/local" "$(cat "$ROOT/var-log/updater-cgi.log")" \
    "$(cat "$ROOT/tolven-local/updater-cgi.log")"
check "the trace is kept in /tolven/local" "$(cat "$ROOT/var-log/updater-cgi.debug")" \
    "$(cat "$ROOT/tolven-local/updater-cgi.debug")"
check "the page reads the saved log" "$(cat "$ROOT/tolven-local/updater-cgi.log")" \
    "$(curl -sS "$BASE/update/last/updater-cgi.log")"
check_true "the page reads the saved trace" \
    grep -q 'install completed' <(curl -sS "$BASE/update/last/updater-cgi.debug")
check "nothing else of /tolven/local is served" 404 \
    "$(curl -s -o /dev/null -w '%{http_code}' "$BASE/update/last/updater-cgi.status")"
check "the device was asked to reboot" reboot "$(tail -n 1 "$ROOT/fake/record")"
check "the device commands went through sudo" \
    "uid=1000 sudo /etc/init.d/application stop
uid=1000 sudo /usr/local/sbin/updater -f /tmp/updater-cgi-temp.pkg
uid=1000 sudo /sbin/reboot" \
    "$(grep -E '^uid=1000 sudo (/etc|/usr/local/sbin/updater|/sbin)' "$ROOT/fake/record-detail")"
finish
