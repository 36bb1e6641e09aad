#!/usr/bin/env bash
# The emulated device from the host, the way a person and the update page
# use it (scripts/device makes and boots it, from the cached image): the
# page loads; a valid package goes up through lighttpd while progress polls
# follow the log to the success entry; the guest reboots (its kernel starts
# again on the console); then the new firmware is installed and the saved
# log and trace are served. An invalid package then ends in the installer's
# error, without a reboot, the firmware unchanged.
# Usage: tests/device/system_test.sh [--deb FILE]    (as root)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
. "$src/tests/e2e/lib.sh"
run=$src/build/device-test
work=$run/work
mkdir -p "$work"
"$src/scripts/device" start --run "$run" "$@" || exit 1
trap '"$src/scripts/device" stop --run "$run"' EXIT
trap 'exit 1' INT TERM
BASE=http://127.0.0.1:$(cat "$run/port") CGI=http://127.0.0.1:$(cat "$run/port")/cgi-bin/updater

AUTH=$(cat "$run/credentials")
web() { curl -sS --max-time 60 --digest -u "$AUTH" -H 'X-Updater-Page: 1' "$@"; }
boots() { grep -c '] Linux version' "$run/serial.log"; }
rebooted() { [ "$(boots)" -ge 2 ]; }
answers() { [ "$(curl -s -o /dev/null -m 5 -w '%{http_code}' "$BASE/version.txt")" = 200 ]; }
firmware() { curl -sS --max-time 10 "$BASE/version.txt"; }
saved_log() { web "$BASE/update/last/updater-cgi.log" | entries | tail -n 1; }

# Posts the package as the page does and polls the progress meanwhile, one
# answer a line in work/polls, until the POST has ended; prints its status.
update() {  # package
    : >"$work/polls"
    web -o "$work/post.body" -w '%{http_code}' -F "package=@$1" "$CGI" >"$work/post.code" &
    local post=$!
    while kill -0 "$post" 2>/dev/null; do
        printf '%s\n' "$(web "$CGI?request=1")" >>"$work/polls"
        sleep 0.5
    done
    wait "$post"
    cat "$work/post.code"
}
polls_saw() { grep -q -- "$1" "$work/polls"; }

check "the page loads" 200 "$(web -o /dev/null -w '%{http_code}' "$BASE/update/")"
check "firmware 1.0 is installed" 1.0 "$(firmware)"
check "the device is free" STATUS_FREE "$(web "$CGI?status=1")"

"$here/make-package" 2.0 $((16 * 1048576)) "$work/firmware-2.0.tar"
started=$SECONDS
# The POST may not answer: the device reboots as the program ends.
update "$work/firmware-2.0.tar" >/dev/null
check_true "the polls followed the update to the success entry" \
    polls_saw 'update completed, firmware successfully loaded'
check_true "the guest reboots: its kernel starts again" wait_for 600 rebooted
check_true "the web server answers again" wait_for 600 answers
echo "     (upload start to the page back: $((SECONDS - started)) s)"
check "firmware 2.0 is installed" 2.0 "$(firmware)"
check "the saved log ends in the success entry" \
    "[T:100] <font color=#2020ff><b>update completed, firmware successfully loaded<br>" "$(saved_log)"
check_true "the saved trace is served" \
    grep -q 'install completed' <(web "$BASE/update/last/updater-cgi.debug")

"$here/make-package" 3.0 $((1048576)) "$work/firmware-3.0-corrupt.tar" corrupt
check "an invalid package: the POST answers" 200 "$(update "$work/firmware-3.0-corrupt.tar")"
check_true "the polls saw the installer's error" polls_saw 'ERROR: installation failed'
check "the saved log ends in error 5" "[T:80] ERROR: installation failed<br>" "$(saved_log)"
sleep 20 # a reboot would have restarted the kernel by now
check "no reboot" 2 "$(boots)"
check "firmware 2.0 is still installed" 2.0 "$(firmware)"
check "the device is free" STATUS_FREE "$(web "$CGI?status=1")"
finish
