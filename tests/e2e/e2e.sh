#!/usr/bin/env bash
# The update page and updater behind the real lighttpd, signed in, in a device
# root: one scenario a run, named by the argument (one function each below).
#   e2e.sh update|errors|window|small|abort|signin|race|browser|tls|flood
set -uo pipefail
. "$(dirname "$0")/lib.sh"

has_upload_file() { compgen -G "$ROOT/var-tmp/lighttpd-upload-*" >/dev/null; }
held() { [ -e "$ROOT/var-log/updater-cgi.lock" ] && echo yes || echo no; }
log_has() { grep -q -- "$1" "$ROOT/var-log/updater-cgi.log" 2>/dev/null; }
recorded() { grep -q -- "$1" "$ROOT/fake/record" 2>/dev/null; }
commands() { cut -d' ' -f1 "$ROOT/fake/record" 2>/dev/null | paste -sd' '; }
state() { cat "$ROOT/var-log/updater-cgi.status" 2>/dev/null; }
fakes() { for kv; do echo "${kv#*=}" >"$ROOT/fake/${kv%%=*}"; done; } # settings of the fake commands
entries() { sed 's/\[[0-9]\{3\}\.[0-9]\{3\}/[T/g'; } # the log with its time stamps replaced by T
SUCCESS='[T:40] reassembling data ...<br>[T:50] package file received<br>[T:60] stopping the application ...<br>'\
'[T:80] installing package file ...<br>[T:100] update completed<br>[T:100] <font color=#2020ff><b>update completed, firmware successfully loaded<br>'

# 64 MiB posted slowly enough for polls to see lighttpd's upload file; the
# client stopped meanwhile, so that the upload is still on for every poll.
scenario_update() {
    fakes installer-delay=1
    package $((64 << 20))
    check "idle progress starts the log" '[000.000:1] waiting for file ...<br>' "$(progress)"
    post --limit-rate 16M >"$ROOT/post.code" &
    local client=$! answer polls=() i
    check_true "lighttpd keeps the arriving body in /var/tmp" wait_for 10 has_upload_file
    kill -STOP "$client"
    for i in 1 2 3 4 5 6 7 8; do progress >"$ROOT/poll.$i" & polls+=($!); done
    wait "${polls[@]}"
    answer=$(cat "$ROOT/poll.1")
    check "eight progress requests at once during the upload: one takes the lock, all answer its log" \
        "$(printf '[000.000:1] waiting for file ...<br>[000.000:10] receiving package file ...<br>%.0s\n' {1..8})" \
        "$(for i in 1 2 3 4 5 6 7 8; do cat "$ROOT/poll.$i"; echo; done)"
    check "then: state 1, lock 1, busy, the same log, the upload still on" "1 1 STATUS_BUSY $answer 0" \
        "$(state) $(cat "$ROOT/var-log/updater-cgi.lock") $(lock_state) $(progress) $(has_upload_file; echo $?)"
    kill -CONT "$client"
    check_true "success entry within 60 s" wait_for 60 log_has 'firmware successfully loaded'
    check "lock state in the pause after success" STATUS_BUSY "$(lock_state)"
    wait
    check "POST answers 200, empty; the installer got the package" "200 0 $installed" \
        "$(cat "$ROOT/post.code") $(stat -c %s "$ROOT/post.body") $(grep '^updater' "$ROOT/fake/record")"
    check "device commands through sudo" "sudo preupdate.sh uci sudo application sudo updater sudo reboot" "$(commands)"
    check "the whole log; busy until the device goes down" \
        "[T:1] waiting for file ...<br>[T:10] receiving package file ...<br>${SUCCESS}STATUS_BUSY" "$(progress | entries; lock_state)"
    device_reboot 1
    check "free once it is back" STATUS_FREE "$(lock_state)"
}

# Updates that end in an error: each answers 200 and nothing else, saves the
# log and leaves the device free (the browser test sees the error entry).
scenario_errors() {
    package 4096
    local name uci status args more log
    while IFS='|' read -r name uci status args more log; do
        echo "$uci" >"$ROOT/fake/uci-value" && echo "$status" >"$ROOT/fake/installer-status"
        rm -rf "${ROOT:?}"/var-log/* "$ROOT"/tolven-local/* "$ROOT/fake/record"
        progress >/dev/null && read -ra args <<<"$args"
        check "$name: POST answers 200, empty" "200 0" \
            "$(cd "$ROOT" && page -o post.body -w '%{http_code}' "${args[@]}" "$CGI") $(stat -c %s "$ROOT/post.body")"
        check "$name: saved log" "[T:1] waiting for file ...<br>$log" "$(entries <"$ROOT/tolven-local/updater-cgi.log")"
        check "$name: commands run; lock, status and log gone: free" "sudo preupdate.sh uci$more  STATUS_FREE" \
            "$(commands) $(ls "$ROOT/var-log" | grep -v -e debug -e guard) $(lock_state)"
    done <<'ROWS'
disabled|false|0|-F package=@pkg||[T] ERROR: update feature is disabled<br>
not a form|true|0|-H Content-Type:application/octet-stream --data-binary @pkg||[T] ERROR: bad/malformed http header<br>
no file in the form|true|0|-F name=value||[T:40] reassembling data ...<br>[T:40] ERROR: upload aborted<br>
installer fails|true|1|-F package=@pkg| sudo application sudo updater|[T:40] reassembling data ...<br>[T:50] package file received<br>[T:60] stopping the application ...<br>[T:80] installing package file ...<br>[T:80] ERROR: installation failed<br>
ROWS
}

# The start-of-update window: lighttpd starts the POST with the upload file
# gone, and until preupdate.sh has run and state 2 is written, the program
# would take the running update's lock for stale. The adaptor's guard answers
# for it; and an update killed outright leaves nothing in the way.
scenario_window() {
    fakes installer-status=1 installer-delay=2 preupdate-delay=2 # an error ending is shorter than the pause
    package $((2 << 20)) && progress >/dev/null
    post --limit-rate 1M >/dev/null &
    wait_for 10 has_upload_file && progress >/dev/null
    check_true "the POST process runs preupdate.sh" wait_for 10 recorded '^preupdate.sh'
    check "in the window: no upload file, lock held, state 1" "1 yes 1" "$(has_upload_file; echo $?) $(held) $(state)"
    check "a lock-state request answers busy and the lock stays" "STATUS_BUSY yes" "$(lock_state) $(held)"
    check "progress: the log as it stands" "$(cat "$ROOT/var-log/updater-cgi.log")" "$(progress)"
    check "another POST, a reboot: busy, not run" "503 update already in progress, please retry later. 503 1 0" \
        "$(cd "$ROOT" && page -o /dev/null -w '%{http_code} ' -F package=@pkg "$CGI"; page -w ' %{http_code}' "$CGI?reboot=1")\
 $(grep -c '^preupdate' "$ROOT/fake/record") $(grep -c '^reboot' "$ROOT/fake/record")"
    check_true "the update reaches the installer" wait_for 10 log_has 'installing package file'
}

# Under 64 KiB lighttpd keeps the body in memory: no upload file, so no poll
# takes the lock, and the update runs without it; the adaptor's guard answers
# busy all the same. Its client leaves after the success entry: the update
# runs to its end all the same.
scenario_small() {
    fakes installer-delay=2
    package $((48 << 10)) && progress >/dev/null
    post --limit-rate 16K >/dev/null &
    local client=$!
    check "polled, it reaches the installer, unlocked but busy" "yes no STATUS_BUSY" \
        "$(wait_for 20 eval 'progress >/dev/null; log_has "installing package file"' && echo yes) $(held) $(lock_state)"
    check_true "the success entry" wait_for 10 log_has 'firmware successfully loaded'
    kill "$client"
    check_true "the client gone, the update goes on to the reboot" wait_for 15 recorded '^reboot'
    check "the installer got the package; the saved log: every entry but the lock's" \
        "$installed [T:1] waiting for file ...<br>$SUCCESS" "$(grep '^updater ' "$ROOT/fake/record") $(entries <"$ROOT/tolven-local/updater-cgi.log")"
}

# A client that aborts during the upload: lighttpd deletes the upload file and
# never starts the program; the lock a poll took for it stays until the next
# lock-state request.
scenario_abort() {
    package $((4 << 20)) && progress >/dev/null
    post --limit-rate 1M --max-time 2 >/dev/null 2>&1 &
    wait_for 10 has_upload_file && progress >/dev/null
    check "a progress request took the lock" 1 "$(cat "$ROOT/var-log/updater-cgi.lock")"
    check_true "curl gives up, lighttpd deletes the upload file" wait_for 5 eval '! has_upload_file' && sleep 0.5
    check "the program never started; lock left, state 1" "- yes 1" "$(commands)- $(held) $(state)"
    check "one lock-state request frees the device" "STATUS_FREE no " "$(lock_state) $(held) $(state)"
}

# Without credentials, without the page's header or cross-site, no request
# reaches the program, which leaves a trace file at every start.
scenario_signin() {
    package $((256 << 10))
    check "every refusal as expected" "" "$(hostile_requests | awk '$1 != $2')"
    check "the program never ran" "" "$(ls "$ROOT/var-log"; ls "$ROOT/fake/record" 2>/dev/null)"
    check "signed in with the header, it answers" STATUS_FREE "$(lock_state)"
    local framed="-s -o /dev/null -D - --cacert $CACERT"
    frame() { tr -d '\r' | awk '/^HTTP/ { s = $2; f = "none" } tolower($1) == "x-frame-options:" { f = $2 } END { print s, f }'; }
    check "lighttpd's own answers framed too: a Range past the end, an unknown method" "200 DENY 501 DENY" \
        "$(curl $framed --digest -u "$AUTH" -r 99999999- "$BASE/update/update.js" | frame) $(curl $framed -X FOO "$BASE/update/" | frame)"
    device_stop && device_start --plain-http || return
    local plain="-s -o /dev/null -w %{http_code} --digest -u $AUTH -HX-Updater-Page:1 $PLAIN/cgi-bin/updater?status=1"
    check "a plain port that serves (the demo's): a foreign Host refused, its own answered" "403 200" \
        "$(curl $plain -HHost:evil.example) $(curl $plain)"
}

# Each round and fault row below on a device of its own, all at once: most of
# their time is the program's pause after a success.
scenario_race() {
    local k=12 name client moment act settings want
    rm -f "$E2E_WORK"/race.*.out
    race_round together >"$E2E_WORK/race.10.out" 2>&1 & # on the scenario's device
    on_own_device 11 race_round staggered
    while IFS='|' read -r name client moment act settings want; do
        on_own_device $((k++)) race_row "$name" "$client" "$moment" "$act" "$settings" "$want"
    done <<'ROWS'
a reboot request 0 ms after a POST's last bytes: the update or the reboot||body_sent|reboot_request 0||one
a reboot request 10 ms after: the update or the reboot||body_sent|reboot_request 0.01||one
a reboot request 30 ms after: the update or the reboot||body_sent|reboot_request 0.03||one
SIGKILL of the program in the installer: busy, free, one installer||in_installer|kill -KILL "$(pid_of -v)"||503 free 1
SIGTERM of the program in the installer: busy, free, one installer||in_installer|kill -TERM "$(pid_of -v)"||503 free 1
SIGKILL of the adaptor in the copy: busy, its reboot, one installer||log_has reassembling|kill -KILL "$(pid_of "")"||503 rebooted 1
SIGKILL of the adaptor in the installer: busy, its reboot, one installer||in_installer|kill -KILL "$(pid_of "")"||503 rebooted 1
lighttpd killed in the upload, started again: free|-H Content-Length:4194304|has_upload_file|device_restart||- free 0
lighttpd killed in the installer, started again: busy, free||in_installer|device_restart|installer-status=1|503 free 1
ROWS
    wait
    cat "$E2E_WORK"/race.*.out | tee "$E2E_WORK/race.all"
    passed=$((passed + $(grep -c '^ok ' "$E2E_WORK/race.all"))) failed=$((failed + $(grep -c '^FAIL ' "$E2E_WORK/race.all")))
}
on_own_device() {  # n function arguments...
    (if device_init "race.$1" && trap device_stop EXIT && device_start --uid 1000; then "${@:2}"
    else echo "FAIL $3: no device"; fi) >"$E2E_WORK/race.$1.out" 2>&1 &
}

# Eight clients against one device, packages of 1 KiB to 64 MiB at full speed
# and rate-limited, all at once, or one every 0.4 s (the biggest first), while
# a poller asks for progress and the lock state. Exactly one package is
# installed, its client answered 200, its log whole; every other client gets
# the busy answer; then the device reboots.
race_round() {  # together|staggered
    fakes installer-delay=1
    local sizes=(1 48 100 1024 4096 16384 32768 65536) rates=(0 32K 0 1M 0 8M 0 16M) round=$1 k winner poller
    progress >/dev/null
    while :; do progress >/dev/null && lock_state && echo; done >"$ROOT/polls" 2>&1 &
    poller=$!
    for k in {0..7}; do head -c $((sizes[k] << 10)) /dev/urandom >"$ROOT/pkg.$k"; done
    for k in $([ "$round" = together ] && echo {0..7} || echo {7..0}); do
        page --max-time 60 --limit-rate "${rates[k]}" -o "$ROOT/answer.$k" -w '%{http_code}' \
            -F "package=@$ROOT/pkg.$k;filename=fw.pkg" "$CGI" >"$ROOT/code.$k" &
        [ "$round" = together ] || sleep 0.4
    done
    wait_for 60 eval '[ "$(grep -l . "$ROOT"/code.* | wc -l)" = 8 ]'
    wait_for 20 recorded '^reboot'
    kill "$poller" && wait "$poller"
    winner=$(grep -lx 200 "$ROOT"/code.* | sed 's/.*\.//')
    check "$round: one client runs the update, seven get the busy answer" "1 7" \
        "$(grep -lx 200 "$ROOT"/code.* | wc -l) $(grep -lx 'update already in progress, please retry later.' "$ROOT"/answer.* | wc -l)"
    check "$round: its package installed, nothing else" \
        "sha256=$(sha256sum <"$ROOT/pkg.${winner:-0}" | cut -d' ' -f1)" "$(grep '^updater' "$ROOT/fake/record" | cut -d' ' -f4)"
    check "$round: its log whole, after the polls' entries before it" "$SUCCESS" "$(entries \
        <"$ROOT/tolven-local/updater-cgi.log" | sed 's/^\(\[T:1\] waiting for file \.\.\.<br>\|\[T:10\] receiving package file \.\.\.<br>\)*//')"
    check "$round: the polls answered, busy while it ran" "" \
        "$(grep -v -e STATUS_BUSY -e STATUS_FREE "$ROOT/polls"; grep -q STATUS_BUSY "$ROOT/polls" || echo never busy)"
    check_timeline "$round"
}

# A reboot request the given seconds after a POST's last bytes; a process of
# the update killed or stopped (the installer held meanwhile), or lighttpd
# (the body of the POST in the upload row never ends), then another POST. Its
# answer, the outcome (free within 5 s of the installer's end, or the
# update's reboot) and the installers run.
race_row() {  # name client moment act settings want
    local got=-
    fakes installer-hold=1 $5 && package $((2 << 20)) && progress >/dev/null
    post $2 >"$ROOT/post.code" 2>/dev/null &
    wait_for 60 $3 && eval "$4"
    [[ $3 == has_upload_file || $4 == reboot* ]] ||
        got=$(cd "$ROOT" && page -o /dev/null -w '%{http_code}' -F package=@pkg "$CGI")
    rm "$ROOT/fake/installer-hold" && wait_for 60 eval '! in_installer'
    if [[ $6 == *rebooted* ]]; then wait; wait_for 15 recorded '^reboot' && got+=" rebooted"
    elif [[ $4 != reboot* ]]; then wait_for 5 eval '[ "$(lock_state)" = STATUS_FREE ]' && got+=" free"; fi
    wait
    [[ $4 != reboot* ]] || got="$(cat "$ROOT/post.code") $(cat "$ROOT/reboot.code")"
    got+=" $(cat "$ROOT/fake/record" 2>/dev/null | grep -c '^updater')"
    [[ $got != @(200 503 1|503 200 0) ]] || got=one
    check "$1" "$6" "$got"
    [ "$4" != device_restart ] || check "$1: the next update" "200 yes" \
        "$(fakes installer-status=0; cd "$ROOT" && page --max-time 60 -w '%{http_code}' -F package=@pkg "$CGI") $(recorded '^reboot' && echo yes)"
    check_timeline "$1"
}
check_timeline() {
    check "$1: one installer at a time, no reboot during one" "" \
        "$(echo "$(paste -sd' ' "$ROOT/fake/timeline" 2>/dev/null) " | sed -E 's/(installer start installer end |reboot )//g')"
}
pid_of() { local p; for p in $(pgrep -f "$ROOT/server/www/cgi-bin/updater"); do grep -qa $1 cgi-header "/proc/$p/cmdline" && echo "$p"; done; }
in_installer() { [ "$(tail -n 1 "$ROOT/fake/timeline" 2>/dev/null)" = "installer start" ]; }
body_sent() { local i; for i in {1..100}; do [ "$(wc -c "$ROOT"/var-tmp/lighttpd-upload-* 2>/dev/null |
    awk 'END { print $1 + 0 }')" -ge $((2 << 20)) ] || log_has reassembling && return; done; return 1; }
reboot_request() { sleep "$1" && page -o /dev/null -w '%{http_code}' "$CGI?reboot=1" >"$ROOT/reboot.code"; }

# TLS 1.2 and 1.3 with forward-secret AEAD suites only.
scenario_tls() {
    handshake() { openssl s_client -connect "${BASE#https://}" "$@" </dev/null >/dev/null 2>&1 && echo yes || echo no; }
    check "TLS 1.3, 1.2 taken; 1.1, 1.0 refused" "yes yes no no" \
        "$(handshake -tls1_3) $(handshake -tls1_2) $(handshake -tls1_1 -cipher ALL@SECLEVEL=0) $(handshake -tls1 -cipher ALL@SECLEVEL=0)"
    local cipher weak=()
    for cipher in AES128-SHA AES256-GCM-SHA384 ECDHE-ECDSA-AES128-SHA DES-CBC3-SHA ECDHE-ECDSA-RC4-SHA NULL-SHA256; do
        [ "$(handshake -tls1_2 -cipher "$cipher@SECLEVEL=0")" = no ] || weak+=("$cipher")
    done
    check "no static-RSA, CBC, 3DES, RC4 or NULL suite" "" "${weak[*]}"
    check "TLS 1.2 with ECDHE-ECDSA-AES128-GCM-SHA256" yes "$(handshake -tls1_2 -cipher ECDHE-ECDSA-AES128-GCM-SHA256)"
}

# One host's connections cannot lock out another host's signed-in user
# (flood_start and flood_round in lib.sh).
scenario_flood() {
    [ "$(id -u)" = 0 ] || { echo "SKIP: network namespaces need root"; exit 77; }
    device_stop && flood_start && trap flood_stop EXIT || return
    local held status seconds
    read -r held status seconds < <(flood_round)
    echo "     2000 tried by the other host, $held held; the signed-in request: $status in $seconds s"
    check "the other host holds no more connections than its cap" yes "$([ "$held" -le 32 ] && echo yes)"
    check "a signed-in request from the first host answered within 2 s" "STATUS_FREE yes" \
        "$status $(awk -v s="$seconds" 'BEGIN { print (s != "" && s < 2) ? "yes" : "no" }')"
}

# The page in chromium (browser/update_page.test.mjs); this side plays the
# device's reboot each time the program asks for one.
scenario_browser() {
    fakes preupdate-delay=1 installer-delay=3
    package $((16 << 20))
    mkdir -p "$E2E_WORK/artifacts"
    BASE=$BASE AUTH=$AUTH ROOT=$ROOT PACKAGE=$ROOT/pkg ARTIFACTS=$E2E_WORK/artifacts \
        node --test --test-reporter=tap "$E2E_DIR/browser/update_page.test.mjs" &
    local node=$! reboots=0
    while kill -0 $node 2>/dev/null && sleep 0.1; do # after the program's last steps
        [ "$(cat "$ROOT/fake/record" 2>/dev/null | grep -c '^reboot')" -le $reboots ] || { ((++reboots)) && sleep 0.5 && device_reboot 3; }
    done
    wait $node
    check "the browser test passes" 0 $?
}

[ "$(type -t "scenario_${1:-}")" = function ] || { sed -n 4p "$0" >&2; exit 2; }
trap device_stop EXIT
# lighttpd, and so the program, runs as an ordinary user, as on the device.
device_init "$1" && device_start --uid 1000 || exit 1
"scenario_$1"
finish
