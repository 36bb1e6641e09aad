#!/usr/bin/env bash
# The emulated device from the host, the way a person and the update page
# use it (scripts/device makes and boots it, from the cached image): the
# page loads, signed in; the page's browser test runs on the fresh device;
# two update-device runs, trusting the device by the key its first boot made
# (--pin), post a valid package at once: one takes it through to the reboot
# (the guest's kernel starts again on the console, once) and the saved log,
# the other is told the device is busy; the device comes back with the
# same certificate, the new firmware installed, the saved log and trace
# served; before that update, two power cuts (in the installer, and in the
# pause after the success entry) and the cable pulled for 30 s during an
# upload, each checked as the reliability campaign does
# (tests/reliability/device.sh), and lighttpd killed during an update and
# started again by systemd; the update is their next update. A
# client pinned to another key sends nothing. An invalid package
# then ends in the installer's error, without a reboot, the firmware
# unchanged. All over HTTPS; the plain port only redirects.
# Usage: tests/device/system_test.sh [--deb FILE]    (as root; update-device
# from build/native, or CLIENT_BIN)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
. "$src/tests/e2e/lib.sh"
client=${CLIENT_BIN:-$src/build/native/src/client/update-device}
[ -x "$client" ] || { echo "system_test: no update-device at $client (build/native first)" >&2; exit 1; }
run=$src/build/device-test
work=$run/work
mkdir -p "$work"
"$src/scripts/device" start --run "$run" "$@" || exit 1
trap '"$src/scripts/device" stop --run "$run"' EXIT
trap 'exit 1' INT TERM
BASE=https://127.0.0.1:$(cat "$run/port") AUTH=$(cat "$run/credentials") CACERT=$run/cert.pem
PLAIN=http://127.0.0.1:$(cat "$run/plain-port")
CGI=$BASE/cgi-bin/updater
boots() { grep -c '] Linux version' "$run/serial.log"; }
rebooted() { [ "$(boots)" -gt "$booted" ]; }
answers() { [ "$(curl -s --cacert "$CACERT" -o /dev/null -m 5 -w '%{http_code}' "$BASE/version.txt")" = 200 ]; }
firmware() { curl -sS --cacert "$CACERT" --max-time 10 "$BASE/version.txt"; }
saved_log() { page "$BASE/update/last/updater-cgi.log" | sed 's/\[[0-9.]*/[T/g; s/<br>/&\n/g' | sed '/^$/d' | tail -n 1; }

# Posts the package as the page does and polls the progress meanwhile, one
# answer a line in work/polls, until the POST has ended; prints its status.
update() {  # package
    : >"$work/polls"
    page --max-time 300 -o "$work/post.body" -w '%{http_code}' -F "package=@$1" "$CGI" >"$work/post.code" &
    local post=$!
    while kill -0 "$post" 2>/dev/null; do
        printf '%s\n' "$(progress)" >>"$work/polls"
        sleep 0.5
    done
    wait "$post"
    cat "$work/post.code"
}
polls_saw() { grep -q -- "$1" "$work/polls"; }

check "the page asks to sign in" 401 "$(curl -s --cacert "$CACERT" -o /dev/null -w '%{http_code}' "$BASE/update/")"
check "the plain port only redirects" "301 https://127.0.0.1/update/" \
    "$(curl -s -o /dev/null -w '%{http_code} %{redirect_url}' "$PLAIN/update/")"
check "the page loads, signed in" 200 "$(page -o /dev/null -w '%{http_code}' "$BASE/update/")"
check "firmware 1.0 is installed" 1.0 "$(firmware)"
check "the device is free" STATUS_FREE "$(lock_state)"

# The page in chromium, first, on the fresh device: a whole update to 1.5
# with its reboot, then one the installer refuses.
[ -d "$src/tests/e2e/browser/node_modules" ] ||
    npm ci --prefix "$src/tests/e2e/browser" --no-audit --no-fund --loglevel=error
"$here/make-package" 1.5 $((16 * 1048576)) "$work/firmware-1.5.tar"
booted=$(boots)
BASE=$BASE AUTH=$AUTH PACKAGE=$work/firmware-1.5.tar ARTIFACTS=$work node --test --test-reporter=tap \
    "$src/tests/e2e/browser/update_page.test.mjs" >"$work/browser.tap"
check "the browser test passes on the device (build/device-test/work/browser.tap)" 0 $?
check_true "the browser's update rebooted the device" rebooted
check "firmware 1.5 is installed" 1.5 "$(firmware)"

CLIENT_BIN=$client "$src/tests/reliability/device.sh" --run "$run" --cuts 2 --phases install,pause --outages 30 \
    --no-next >"$work/campaign.log" 2>&1
check "power cuts and a lost link: the device whole and truthful (build/device-test/work/campaign.log)" 0 $?

# lighttpd dies during an update, as in a crash (the package's hook kills
# it, then refuses the package): systemd starts it again, the update's end
# frees the device without a reboot, and the next update succeeds.
"$here/make-package" 1.9 $((48 * 1024)) "$work/firmware-1.9-kill.tar" kill-server
booted=$(boots) installed=$(firmware)
page --max-time 120 -o /dev/null -F "package=@$work/firmware-1.9-kill.tar" "$CGI"
check "lighttpd killed during an update: its client's connection is lost" lost "$([ $? = 0 ] || echo lost)"
check_true "lighttpd started again by systemd, the device free" wait_for 120 eval '[ "$(lock_state)" = STATUS_FREE ]'
check "no reboot, the firmware unchanged" "$booted $installed" "$(boots) $(firmware)"

# Two update-device runs at once, as from two production-line stations, with
# a package that lighttpd keeps in memory (no poll takes the lock for it):
# one installs it and sees the device back, the other is told it is busy.
"$here/make-package" 2.0 $((48 * 1024)) "$work/firmware-2.0.tar"
started=$SECONDS booted=$(boots) clients=()
for k in 1 2; do
    UPDATE_DEVICE_PASSWORD=${AUTH#*:} "$client" --user "${AUTH%%:*}" --pin "$(cat "$run/pin")" --timeout 600 \
        "$BASE" "$work/firmware-2.0.tar" >"$work/client.$k" 2>&1 &
    clients+=($!)
done
for k in 0 1; do wait "${clients[k]}"; clients[k]=$?; done
check "update-device --pin twice at once: one updated, back, the saved log says success; one busy (work/client.*)" \
    "0 7" "$(printf '%s\n' "${clients[@]}" | sort -n | paste -sd' ')"
check "the guest rebooted once: its kernel started again" $((booted + 1)) "$(boots)"
check_true "the web server answers" wait_for 600 answers
echo "     (upload start to the page back: $((SECONDS - started)) s)"
check "the same certificate after the update's reboot" "$(cat "$run/cert.pem")" \
    "$(openssl s_client -connect "${BASE#https://}" </dev/null 2>/dev/null | openssl x509)"
check "firmware 2.0 is installed" 2.0 "$(firmware)"
booted=$(boots)
check "the saved log ends in the success entry" \
    "[T:100] <font color=#2020ff><b>update completed, firmware successfully loaded<br>" "$(saved_log)"
check_true "the saved trace is served" \
    grep -q 'install completed' <(page "$BASE/update/last/updater-cgi.debug")

"$here/make-package" 3.0 $((1048576)) "$work/firmware-3.0-corrupt.tar" corrupt
UPDATE_DEVICE_PASSWORD=${AUTH#*:} "$client" --user "${AUTH%%:*}" --pin "sha256//$(head -c 32 /dev/urandom | base64)" \
    "$BASE" "$work/firmware-3.0-corrupt.tar" >"$work/client-other-key.out" 2>&1
check "a client pinned to another key: refused, exit 14" 14 $?
check "an invalid package: the POST answers" 200 "$(update "$work/firmware-3.0-corrupt.tar")"
check_true "the polls saw the installer's error" polls_saw 'ERROR: installation failed'
check "the saved log ends in error 5" "[T:80] ERROR: installation failed<br>" "$(saved_log)"
sleep 20 # a reboot would have restarted the kernel by now
check_true "no reboot" test "$(boots)" = "$booted"
check "firmware 2.0 is still installed" 2.0 "$(firmware)"
check "the device is free" STATUS_FREE "$(lock_state)"
finish
