#!/usr/bin/env bash
# The update page and updater behind the real lighttpd, signed in, in a device
# root: one scenario a run, named by the argument (one function each below).
#   e2e.sh update|errors|window|small|abort|signin|browser
set -uo pipefail
. "$(dirname "$0")/lib.sh"

has_upload_file() { compgen -G "$ROOT/var-tmp/lighttpd-upload-*" >/dev/null; }
lock_held() { [ -e "$ROOT/var-log/updater-cgi.lock" ]; }
log_has() { grep -q -- "$1" "$ROOT/var-log/updater-cgi.log" 2>/dev/null; }
recorded() { grep -q -- "$1" "$ROOT/fake/record" 2>/dev/null; }
commands_run() { cut -d' ' -f1 "$ROOT/fake/record" 2>/dev/null | paste -sd' '; }
state() { cat "$ROOT/var-log/updater-cgi.status" 2>/dev/null; }
# The log with its time stamps replaced by T, one entry a line.
entries() { sed -e 's/\[[0-9]\{3\}\.[0-9]\{3\}/[T/g' -e 's/<br>/&\n/g' | sed -e '/^$/d'; }
package() {  # bytes: a random package in ROOT/pkg, and what the installer fake records of it
    head -c "$1" /dev/urandom >"$ROOT/pkg"
    installed="updater -f /tmp/updater-cgi-temp.pkg sha256=$(sha256sum <"$ROOT/pkg" | cut -d' ' -f1) size=$1"
}
# Posts ROOT/pkg as the page does and prints the status. In the background
# only: the job becomes curl itself, so that $! is curl's pid.
post() {  # curl options...
    exec curl -sS --max-time 120 --digest -u "$AUTH" -H 'X-Updater-Page: 1' -o "$ROOT/post.body" \
        -w '%{http_code}' "$@" -F "package=@$ROOT/pkg;filename=fw.pkg" "$CGI"
}
# Progress requests every 150 ms into ROOT/polls until an error entry shows or
# ROOT/stop-polls appears (a request after an error ending would start a new log).
poll_progress() {
    rm -f "$ROOT/stop-polls" "$ROOT/polls"
    until [ -e "$ROOT/stop-polls" ] || grep -q 'ERROR: ' "$ROOT/polls" 2>/dev/null; do
        { progress; echo; } >>"$ROOT/polls"
        sleep 0.15
    done
}
SUCCESS_LOG='[T:40] reassembling data ...<br>
[T:50] package file received<br>
[T:60] stopping the application ...<br>
[T:80] installing package file ...<br>
[T:100] update completed<br>
[T:100] <font color=#2020ff><b>update completed, firmware successfully loaded<br>'

# A 64 MiB package posted slowly enough for the polls to see lighttpd's upload
# file, by the server running as an ordinary user, as on the device.
scenario_update() {
    echo 1 >"$ROOT/fake/installer-delay"
    device_start --uid 1000 || return 1
    package $((64 << 20))
    check "idle progress starts the log" '[000.000:1] waiting for file ...<br>' "$(progress)"
    post --limit-rate 16M >"$ROOT/post.code" &
    check_true "lighttpd keeps the arriving body in /var/tmp" wait_for 10 has_upload_file
    local answer
    answer=$(progress)
    check "a progress request during the upload takes the lock" \
        '[000.000:1] waiting for file ...<br>[000.000:10] receiving package file ...<br>' "$answer"
    check "state 1, lock file 1, lock state busy" "1 1 STATUS_BUSY" \
        "$(state) $(cat "$ROOT/var-log/updater-cgi.lock") $(lock_state)"
    check "the next progress request only prints the log" "$answer" "$(progress)"
    check_true "the upload still runs" has_upload_file
    check_true "success entry within 60 s" wait_for 60 log_has 'firmware successfully loaded'
    local success_at=${EPOCHREALTIME/./}
    check "lock state in the pause after success" STATUS_BUSY "$(lock_state)"
    check_true "lock removed after the pause" wait_for 20 eval '! lock_held'
    check_true "the pause lasts 10 s" test $((${EPOCHREALTIME/./} - success_at)) -ge 9500000
    wait
    check "POST answers 200, empty" "200 0" "$(cat "$ROOT/post.code") $(stat -c %s "$ROOT/post.body")"
    check "the installer got the package" "$installed" "$(grep '^updater' "$ROOT/fake/record")"
    check "the device commands, through sudo" "sudo preupdate.sh uci sudo application sudo updater sudo reboot" \
        "$(commands_run)"
    check "the package file is removed" "" "$(ls "$ROOT/tmp")"
    check "the whole log" "[T:1] waiting for file ...<br>
[T:10] receiving package file ...<br>
$SUCCESS_LOG" "$(progress | entries)"
    check "the device is free" STATUS_FREE "$(lock_state)"
    check "the page reads the saved log and trace" "$(cat "$ROOT"/var-log/updater-cgi.{log,debug})" \
        "$(page "$BASE/update/last/updater-cgi.log" "$BASE/update/last/updater-cgi.debug")"
    check "nothing else of /tolven/local is served" 404 \
        "$(page -o /dev/null -w '%{http_code}' "$BASE/update/last/updater-cgi.status")"
}

# Updates that end in an error: each answers 200 and nothing else, shows its
# error entry to the polls, saves the log and leaves the device free.
scenario_errors() {
    device_start || return 1
    package 4096
    local name uci installer args commands log
    while IFS='|' read -r name uci installer args commands log; do
        echo "$uci" >"$ROOT/fake/uci-value"
        echo "$installer" >"$ROOT/fake/installer-status"
        rm -rf "${ROOT:?}"/var-log/* "$ROOT"/tolven-local/* "$ROOT/fake/record"
        progress >/dev/null
        poll_progress &
        read -ra args <<<"$args"
        check "$name: POST answers 200, empty" "200 0" \
            "$(cd "$ROOT" && page -o post.body -w '%{http_code}' "${args[@]}" "$CGI") $(stat -c %s "$ROOT/post.body")"
        touch "$ROOT/stop-polls"
        wait
        local saved
        saved=$(entries <"$ROOT/tolven-local/updater-cgi.log")
        check "$name: saved log" "$(printf '[T:1] waiting for file ...<br>\n%b' "$log")" "$saved"
        check "$name: a poll saw the error entry" "$(tail -n 1 <<<"$saved")" "$(tail -n 1 "$ROOT/polls" | entries | tail -n 1)"
        check "$name: commands run" "$commands" "$(commands_run)"
        check "$name: lock, status and log are gone, the device is free" " STATUS_FREE" \
            "$(ls "$ROOT/var-log" | grep -v debug) $(lock_state)"
    done <<'ROWS'
disabled|false|0|-F package=@pkg|sudo preupdate.sh uci|[T] ERROR: update feature is disabled<br>
not a form|true|0|-H Content-Type:application/octet-stream --data-binary @pkg|sudo preupdate.sh uci|[T] ERROR: bad/malformed http header<br>
no file in the form|true|0|-F name=value|sudo preupdate.sh uci|[T:40] reassembling data ...<br>\n[T:40] ERROR: upload aborted<br>
installer fails|true|1|-F package=@pkg|sudo preupdate.sh uci application updater|[T:40] reassembling data ...<br>\n[T:50] package file received<br>\n[T:60] stopping the application ...<br>\n[T:80] installing package file ...<br>\n[T:80] ERROR: installation failed<br>
ROWS
    check_true "the saved trace has the install command" \
        grep -q 'install command: /usr/local/sbin/updater -f' "$ROOT/tolven-local/updater-cgi.debug"
}

# Starts a 2 MiB upload of about 2 s, takes the lock as the page does, waits
# for lighttpd to start the POST (the upload file goes), runs the command
# given, then prints the milliseconds from the POST's start to state 2.
timed_window() {  # command...
    post --limit-rate 1M >/dev/null &
    wait_for 10 has_upload_file && progress >/dev/null
    # Builtins only, every 2 ms (a read from a fifo nobody writes to).
    rm -f "$ROOT/fifo" && mkfifo "$ROOT/fifo" && exec 9<>"$ROOT/fifo"
    local start=${EPOCHREALTIME/./} s=
    while has_upload_file && [ $((${EPOCHREALTIME/./} - start)) -lt 10000000 ]; do read -rt 0.002 -u 9; done
    start=${EPOCHREALTIME/./}
    "$@"
    until [ "$s" = 2 ] || [ $((${EPOCHREALTIME/./} - start)) -gt 10000000 ]; do
        read -rt 0.002 -u 9
        read -r s <"$ROOT/var-log/updater-cgi.status"
    done 2>/dev/null
    echo $(((${EPOCHREALTIME/./} - start) / 1000)) >"$ROOT/window"
    wait
}
# The start-of-update window: until preupdate.sh has run and state 2 is
# written, a lock-state request takes the running update's lock for stale.
in_window() {
    check_true "the POST process runs preupdate.sh" wait_for 5 recorded '^preupdate.sh'
    check "in the window: no upload file, lock held, state 1" "no yes 1" \
        "$(has_upload_file && echo yes || echo no) $(lock_held && echo yes || echo no) $(state)"
    check "a lock-state request answers free and removes the lock" "STATUS_FREE no" \
        "$(lock_state) $(lock_held && echo yes || echo no)"
}
scenario_window() {
    echo 1 >"$ROOT/fake/installer-status" # an error ending is shorter than the pause
    echo 2 >"$ROOT/fake/installer-delay"
    echo 1 >"$ROOT/fake/preupdate-delay"
    device_start || return 1
    package $((2 << 20))
    progress >/dev/null
    timed_window in_window
    local slow
    slow=$(cat "$ROOT/window")
    check "the update goes on unlocked to its end" "STATUS_FREE" "$(lock_state)"
    check_true "it ends as before" grep -q 'ERROR: installation failed' "$ROOT/tolven-local/updater-cgi.log"
    echo 0 >"$ROOT/fake/preupdate-delay"
    rm -rf "${ROOT:?}"/var-log/*
    progress >/dev/null
    timed_window true
    echo "     window: $slow ms with a 1 s preupdate.sh, $(cat "$ROOT/window") ms with an instant one"
    check_true "the window spans preupdate.sh" test "$slow" -ge 1000
    check_true "an instant preupdate.sh shortens it" test "$(cat "$ROOT/window")" -lt "$slow"
}

# Under 64 KiB lighttpd keeps the body in memory: no upload file, so no poll
# takes the lock, and the update runs without it. Its client leaves after the
# success entry: the update runs to its end all the same.
scenario_small() {
    echo 2 >"$ROOT/fake/installer-delay"
    device_start || return 1
    package $((48 << 10))
    progress >/dev/null
    poll_progress &
    post --limit-rate 16K >/dev/null &
    local client=$!
    check_true "the update reaches the installer" wait_for 20 log_has 'installing package file'
    check "lock state while it installs" STATUS_FREE "$(lock_state)"
    check_true "the success entry" wait_for 10 log_has 'firmware successfully loaded'
    kill "$client"
    local left_at=${EPOCHREALTIME/./}
    check_true "the reboot comes after the pause" wait_for 15 recorded '^reboot'
    check_true "the pause (after the client left)" test $((${EPOCHREALTIME/./} - left_at)) -ge 8000000
    touch "$ROOT/stop-polls"
    wait
    check "the installer got the package" "$installed" "$(grep '^updater ' "$ROOT/fake/record")"
    check "the saved log: every entry but the lock's" "[T:1] waiting for file ...<br>
$SUCCESS_LOG" "$(entries <"$ROOT/tolven-local/updater-cgi.log")"
}

# A client that aborts during the upload: lighttpd deletes the upload file and
# never starts the program; the lock a poll took for it stays until the next
# lock-state request.
scenario_abort() {
    device_start || return 1
    package $((4 << 20))
    progress >/dev/null
    post --limit-rate 1M --max-time 2 >/dev/null 2>&1 &
    wait_for 10 has_upload_file && progress >/dev/null
    check "a progress request took the lock" 1 "$(cat "$ROOT/var-log/updater-cgi.lock")"
    wait $!
    check "curl gave up during the upload" 28 $?
    check_true "lighttpd deletes the upload file" wait_for 5 eval '! has_upload_file'
    sleep 0.5
    check "the program never started; lock left, state 1" "- yes 1" \
        "$(commands_run)- $(lock_held && echo yes || echo no) $(state)"
    check "one lock-state request frees the device" "STATUS_FREE no " \
        "$(lock_state) $(lock_held && echo yes || echo no) $(state)"
}

# Requests that must never reach the program: no credentials, wrong ones, no
# user file, the page's header missing, a cross-site request. ROOT/hostile
# gets one line a request: "expected actual".
hostile_requests() {
    local - u=$CGI row
    set -f
    for row in "401 $BASE/update/" "401 -HX-Updater-Page:1 $u?request=1" "401 -HX-Updater-Page:1 $u?status=1" \
        "401 -HX-Updater-Page:1 $u?reboot=1" "401 -HX-Updater-Page:1 -Fpackage=@$ROOT/pkg $u" \
        "401 --digest -u ${AUTH%%:*}:wrong -HX-Updater-Page:1 $u?reboot=1" \
        "403 --digest -u $AUTH $u?reboot=1" "403 --digest -u $AUTH -HX-Updater-Page:0 $u?request=1" \
        "403 --digest -u $AUTH -Fpackage=@$ROOT/pkg $u" "403 --digest -u $AUTH $u/x?status=1" \
        "403 --digest -u $AUTH -HX-Updater-Page:1 -HSec-Fetch-Site:cross-site $u?reboot=1" \
        "403 --digest -u $AUTH -HX-Updater-Page:1 -HSec-Fetch-Site:cross-site -Fpackage=@$ROOT/pkg $u"; do
        echo "${row%% *} $(curl -s --max-time 20 -o /dev/null -w '%{http_code}' ${row#* })" >>"$ROOT/hostile"
    done
    mv "$ROOT/server/updater.htdigest" "$ROOT/users"
    echo "401 $(page -o /dev/null -w '%{http_code}' "$u?reboot=1")" >>"$ROOT/hostile"
    : >"$ROOT/server/updater.htdigest"
    echo "401 $(page -o /dev/null -w '%{http_code}' "$u?reboot=1")" >>"$ROOT/hostile"
    mv "$ROOT/users" "$ROOT/server/updater.htdigest"
}
# The program leaves a trace file at every start, the fakes a record line.
program_ran() { compgen -G "$ROOT/var-log/*" >/dev/null || [ -e "$ROOT/fake/record" ]; }
scenario_signin() {
    device_start || return 1
    package $((256 << 10))
    hostile_requests
    check "every refusal as expected" "" "$(awk '$1 != $2' "$ROOT/hostile")"
    check_true "the program never ran" eval '! program_ran'
    check "signed in with the header, it answers" STATUS_FREE "$(lock_state)"
}

# The page in chromium (browser/update_page.test.mjs); this plays the
# device's reboot and checks that the lock, once a poll took it during the
# page's upload, stays until the success entry.
scenario_browser() {
    echo 1 >"$ROOT/fake/preupdate-delay"
    echo 3 >"$ROOT/fake/installer-delay"
    device_start || return 1
    package $((16 << 20))
    BASE=$BASE AUTH=$AUTH ROOT=$ROOT PACKAGE=$ROOT/pkg ARTIFACTS=$E2E_WORK/artifacts \
        node --test --test-reporter=tap "$E2E_DIR/browser/update_page.test.mjs" &
    local browser=$! samples=
    while kill -0 "$browser" 2>/dev/null && ! recorded '^reboot'; do
        [ -e "$ROOT/own-update" ] && samples+="$(lock_held && echo 1 || echo 0)$(log_has 'successfully loaded' && echo 1 || echo 0) "
        sleep 0.02
    done
    if recorded '^reboot'; then
        sleep 0.5 # the program's last steps after asking for the reboot
        device_reboot 3
    fi
    wait "$browser"
    check "the browser test passes" 0 $?
    check "the lock held from the upload to the success entry" yes \
        "$([[ $samples =~ ^(00 )*(10 )+(11 ) ]] && echo yes || echo no)"
}

[ "$(type -t "scenario_${1:-}")" = function ] || { sed -n 4p "$0" >&2; exit 2; }
device_init "$1"
trap device_stop EXIT
"scenario_$1"
finish
