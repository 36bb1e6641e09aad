#!/usr/bin/env bash
# Faults during an update, each repeated in fresh device roots: a stalled
# body, SIGTERM and SIGKILL in mid-copy, a full /tmp, a read-only /var/log,
# no /tolven/local. The POST runs directly in the root (not through lighttpd)
# so that its exit status and pid are at hand.
#   faults.sh REPEATS
set -uo pipefail
. "$(dirname "$0")/lib.sh"
repeats=${1:-20}
work=$REL_WORK/faults
rm -rf "$work"
mkdir -p "$work"

B=reliability-boundary-7d1f
POST_ENV=(REQUEST_METHOD=POST CONTENT_LENGTH=4096 "CONTENT_TYPE=$(form_type $B)")

# The lock as the page's first poll takes it while lighttpd receives a body.
take_lock() {  # root
    touch "$1/var-tmp/lighttpd-upload-1"
    run_request "$1" 20 -- REQUEST_METHOD=GET QUERY_STRING=request=1 </dev/null
    rm -f "$1/var-tmp/lighttpd-upload-1"
    [ -e "$1/var-log/updater-cgi.lock" ]
}
lock_left() { [ -e "$1/var-log/updater-cgi.lock" ]; }

# The POST started in the background with its pid at hand; its body comes
# from the fifo ROOT/body, fed by the caller.
start_post() {  # root
    local envs=() e
    for e in "${POST_ENV[@]}"; do envs+=(--env "$e"); done
    mkfifo "$1/body"
    "$RIG" --root "$1" --pidfile "$1/pid" --bind-ro "$(dirname "$UPDATER_BIN")" \
        "${envs[@]}" -- "$UPDATER_BIN" <"$1/body" >"$1/out" 2>"$1/err" &
    POST_JOB=$!
}
# The POST's exit status; one that does not end within 15 s is killed (137).
wait_post() {  # pid
    (sleep 15; kill -KILL "$1" 2>/dev/null) &
    local guard=$! rc
    wait "$POST_JOB"
    rc=$?
    kill "$guard" 2>/dev/null
    wait "$guard" 2>/dev/null
    return "$rc"
}
# Body data that keeps coming, 256 KiB every 50 ms, until the reader goes.
stream_body() {  # root
    (form_head $B; while head -c 262144 /dev/urandom; do sleep 0.05; done) >"$1/body" 2>/dev/null &
    FEEDER=$!
}
wait_for_copy() {  # root: the package file has received its first megabyte
    local i
    for i in $(seq 200); do
        [ "$(stat -c %s "$1/tmp/updater-cgi-temp.pkg" 2>/dev/null || echo 0)" -gt 0 ] && return 0
        sleep 0.05
    done
    return 1
}
pid_of_post() {  # root
    local i
    for i in $(seq 100); do
        [ -s "$1/pid" ] && cat "$1/pid" && return 0
        sleep 0.05
    done
    return 1
}

# --- stall in mid-copy: exit 250, lock freed -----------------------------
stall() {
    local root=$work/stall/$1 v=ok start end rc
    new_root "$root"
    take_lock "$root" || v="lock not taken"
    mkfifo "$root/body"
    (form_head $B; head -c 300000 /dev/urandom; exec sleep 60) >"$root/body" &
    local feeder=$!
    start=$(now_ms)
    run_request "$root" 30 -- "${POST_ENV[@]}" <"$root/body"
    rc=$?
    end=$(now_ms)
    kill "$feeder" 2>/dev/null
    wait "$feeder" 2>/dev/null
    [ "$rc" = 250 ] || v="exit $rc"
    lock_left "$root" && v="lock left"
    grep -q 'ERROR: upload timeout' "$root/tolven-local/updater-cgi.log" 2>/dev/null ||
        [ "$v" != ok ] || v="no timeout entry saved"
    echo $((end - start)) >"$root.ms"
    echo "$v" >"$root.verdict"
}

# Starts the POST with its body arriving slowly and waits until it copies;
# sets POST_PID. Fails when the copy never starts.
post_in_mid_copy() {  # root
    start_post "$1"
    stream_body "$1"
    wait_for_copy "$1" && POST_PID=$(pid_of_post "$1")
}

# --- SIGTERM in mid-copy: exit 0, lock freed -------------------------------
sigterm() {
    local root=$work/sigterm/$1 v=ok rc pid
    new_root "$root"
    take_lock "$root" || v="lock not taken"
    if post_in_mid_copy "$root"; then
        pid=$POST_PID
        kill -TERM "$pid"
        wait_post "$pid"
        rc=$?
        [ "$rc" = 0 ] || v="exit $rc"
        lock_left "$root" && v="lock left"
        [ "$(cat "$root/var-log/updater-cgi.status" 2>/dev/null)" = 2 ] || v="status file changed"
    else
        v="copy never started"
        kill "$POST_JOB" 2>/dev/null
    fi
    kill "$FEEDER" 2>/dev/null
    wait 2>/dev/null
    echo "$v" >"$root.verdict"
}

# --- SIGKILL in mid-copy, then a reset request: device idle ----------------
sigkill() {
    local root=$work/sigkill/$1 v=ok rc pid
    new_root "$root"
    take_lock "$root" || v="lock not taken"
    if post_in_mid_copy "$root"; then
        pid=$POST_PID
        kill -KILL "$pid"
        wait_post "$pid"
        rc=$?
        [ "$rc" = 137 ] || v="exit $rc"
        lock_left "$root" || v="no lock after SIGKILL"
        kill "$FEEDER" 2>/dev/null
        # The reset request: a GET without QUERY_STRING, which lighttpd
        # never sends; only something on the device itself can.
        run_request "$root" 20 -- REQUEST_METHOD=GET </dev/null
        rc=$?
        [ "$rc" = 0 ] || v="reset exit $rc"
        local left
        left=$(ls "$root/var-log" | grep -v '^updater-cgi.debug$')
        [ -z "$left" ] || v="left after reset: $(echo $left)"
        run_request "$root" 20 -- REQUEST_METHOD=GET QUERY_STRING=status=1 </dev/null
        [ "$(cat "$root/out")" = STATUS_FREE ] || v="lock state '$(cat "$root/out")'"
        grep -q 'receiving package file' "$root/tolven-local/updater-cgi.log" 2>/dev/null ||
            [ "$v" != ok ] || v="log not saved by the reset"
    else
        v="copy never started"
        kill "$POST_JOB" 2>/dev/null
    fi
    kill "$FEEDER" 2>/dev/null
    wait 2>/dev/null
    echo "$v" >"$root.verdict"
}

# --- /tmp full during the copy: error 3, nothing hangs, lock freed ---------
tmp_full() {
    local root=$work/tmpfull/$1 v=ok rc start end
    new_root "$root"
    take_lock "$root" || v="lock not taken"
    start=$(now_ms)
    # 8 MiB into a 2 MiB /tmp: the second write of the transfer buffer fails.
    (form_head $B; head -c $((8 << 20)) /dev/urandom; form_tail $B) |
        run_request "$root" 60 --tmp-size $((2 << 20)) -- "${POST_ENV[@]}"
    rc=$?
    end=$(now_ms)
    [ "$rc" = 253 ] || v="exit $rc"
    lock_left "$root" && v="lock left"
    grep -q 'ERROR: upload aborted' "$root/tolven-local/updater-cgi.log" 2>/dev/null ||
        [ "$v" != ok ] || v="no error entry saved"
    grep -q '^updater ' "$root/fake/record" 2>/dev/null && v="installer ran"
    echo $((end - start)) >"$root.ms"
    echo "$v" >"$root.verdict"
}

# --- /var/log read-only: every request answers as it should ----------------
# Each request: expected exit status and answer ("-" for any answer).
readonly_log() {
    local root=$work/rolog/$1 v=ok rc
    new_root "$root"
    local pkg=$root/package.bin
    head -c 300000 /dev/urandom >"$pkg"
    ask() {  # expected-status expected-answer env...
        local want=$1 answer=$2
        shift 2
        run_request "$root" 40 --readonly-log -- "$@"
        rc=$?
        [ "$rc" = "$want" ] || v="$* exit $rc"
        [ "$answer" = - ] || [ "$(cat "$root/out")" = "$answer" ] || v="$* answered '$(cat "$root/out")'"
    }
    ask 0 STATUS_FREE REQUEST_METHOD=GET QUERY_STRING=status=1 </dev/null
    ask 0 "" REQUEST_METHOD=GET QUERY_STRING=request=1 </dev/null
    ask 0 "" REQUEST_METHOD=GET QUERY_STRING=reboot=1 </dev/null
    ask 0 "" REQUEST_METHOD=GET </dev/null
    ask 0 "" REQUEST_METHOD=HEAD </dev/null
    # An upload on its way, and no lock can be written: error 10.
    touch "$root/var-tmp/lighttpd-upload-1"
    ask 246 "" REQUEST_METHOD=GET QUERY_STRING=request=1 </dev/null
    rm -f "$root/var-tmp/lighttpd-upload-1"
    (form_head $B; cat "$pkg"; form_tail $B) | ask 0 "" "${POST_ENV[@]}"
    [ "$(installed_digest "$root")" = "$(sha256sum <"$pkg" | cut -d' ' -f1)" ] ||
        [ "$v" != ok ] || v="package not byte-exact"
    echo "$v" >"$root.verdict"
}

# --- /tolven/local missing: the update still completes --------------------
no_persistent() {
    local root=$work/nopersist/$1 v=ok rc
    new_root "$root"
    local pkg=$root/package.bin
    head -c 300000 /dev/urandom >"$pkg"
    take_lock "$root" || v="lock not taken"
    (form_head $B; cat "$pkg"; form_tail $B) | run_request "$root" 40 --no-persistent -- "${POST_ENV[@]}"
    rc=$?
    [ "$rc" = 0 ] || v="exit $rc"
    [ "$(installed_digest "$root")" = "$(sha256sum <"$pkg" | cut -d' ' -f1)" ] ||
        [ "$v" != ok ] || v="package not byte-exact"
    tail -n 1 "$root/fake/record" | grep -qx reboot || [ "$v" != ok ] || v="no reboot"
    lock_left "$root" && v="lock left"
    echo "$v" >"$root.verdict"
}

report() {  # dir case figures
    local tally
    tally=$(count_ok "$work/$1" "$repeats")
    row faults "$2" "$(verdict_of "$tally")" "$tally ok${3:+; $3}"
    first_failures "$work/$1" | sed "s|^|$2: |" >>"$REL_WORK/failures.txt"
}

for c in stall sigterm sigkill tmpfull rolog nopersist; do mkdir -p "$work/$c"; done
repeat_parallel "$repeats" stall
report stall "stall in mid-copy: exit 250, lock freed" \
    "ended after $(cat "$work"/stall/*.ms | median_max) ms"
repeat_parallel "$repeats" sigterm
report sigterm "SIGTERM in mid-copy: exit 0, lock freed"
repeat_parallel "$repeats" sigkill
report sigkill "SIGKILL in mid-copy, then reset: idle"
repeat_parallel "$repeats" tmp_full
report tmpfull "/tmp full during the copy: error 3, lock freed" \
    "ended after $(cat "$work"/tmpfull/*.ms | median_max) ms"
repeat_parallel "$repeats" readonly_log
report rolog "/var/log read-only: every request answers" "7 requests each"
repeat_parallel "$repeats" no_persistent
report nopersist "/tolven/local missing: update completes"
exit 0
