# Sourced by the end-to-end tests and scripts/demo: a device root served by a
# real lighttpd on a free loopback port, and small helpers around it.
#
# Needs UPDATER_BIN and CGI_HEADER_BIN (the built program and adaptor).
# After device_start: ROOT (device root on the host), PORT, BASE (the URL of the
# server), CGI (the program's URL), LIGHTTPD_PID.

E2E_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

# --- checks ----------------------------------------------------------------
passed=0 failed=0
check() {  # name expected actual
    if [ "$2" == "$3" ]; then
        passed=$((passed + 1))
        echo "ok   $1"
    else
        failed=$((failed + 1))
        echo "FAIL $1"
        printf '     expected: %q\n     actual:   %q\n' "$2" "$3"
    fi
}
check_true() {  # name command...
    local name=$1
    shift
    if "$@"; then check "$name" yes yes; else check "$name" yes no; fi
}
finish() {
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}

# --- the device ------------------------------------------------------------
# Fresh device root under E2E_WORK with updates enabled and instant fakes.
device_init() {  # name
    ROOT=$E2E_WORK/$1
    rm -rf "$ROOT"
    mkdir -p "$ROOT/fake"
    echo true >"$ROOT/fake/uci-value"
}

port_in_use() {
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# Starts lighttpd in the device root on a port below the ephemeral range; a
# port that turns out to be taken (another test won the race) costs one more
# try on another port.
device_start() {  # [launcher options...]
    DEVICE_ARGS=("$@")
    local try
    for try in 1 2 3 4 5 6; do
        PORT=${E2E_PORT:-$((20000 + (RANDOM * 32768 + RANDOM) % 12000))}
        port_in_use "$PORT" && continue
        # A session of its own, so that device_stop can end whatever the
        # server started and left behind (a CGI's shell commands).
        setsid "$E2E_DIR/device-lighttpd" --root "$ROOT" --port "$PORT" \
            --updater "$UPDATER_BIN" --adaptor "$CGI_HEADER_BIN" "$@" >>"$ROOT/lighttpd.out" 2>&1 &
        DEVICE_JOB=$!
        local i
        for i in $(seq 100); do
            if port_in_use "$PORT"; then
                LIGHTTPD_PID=$(cat "$ROOT/server/lighttpd.pid")
                BASE=http://127.0.0.1:$PORT
                CGI=$BASE/cgi-bin/updater
                return 0
            fi
            kill -0 "$DEVICE_JOB" 2>/dev/null || break
            sleep 0.05
        done
        kill "$DEVICE_JOB" 2>/dev/null || true
        wait "$DEVICE_JOB" 2>/dev/null || true
        if [ -n "${E2E_PORT:-}" ]; then break; fi
    done
    echo "lighttpd did not start; its output:" >&2
    cat "$ROOT/lighttpd.out" >&2
    return 1
}

# Safe under set -e (scripts/demo): the processes may be gone already.
device_stop() {
    [ -n "${DEVICE_JOB:-}" ] || return 0
    if [ -n "${LIGHTTPD_PID:-}" ]; then kill "$LIGHTTPD_PID" 2>/dev/null || true; fi
    wait "$DEVICE_JOB" 2>/dev/null || true
    kill -- "-$DEVICE_JOB" 2>/dev/null || true
    DEVICE_JOB= LIGHTTPD_PID=
}

# What a reboot does to the device: the server goes away, the volatile
# /var/log, /tmp and /var/tmp are emptied, /tolven/local stays.
device_reboot() {  # seconds down
    device_stop
    rm -rf "${ROOT:?}"/var-log/* "$ROOT"/tmp/* "$ROOT"/var-tmp/*
    sleep "${1:-2}"
    E2E_PORT=$PORT device_start "${DEVICE_ARGS[@]}"
}

# --- requests --------------------------------------------------------------
progress() { curl -sS --max-time 10 "$CGI?request=1"; }
lock_state() { curl -sS --max-time 10 "$CGI?status=1"; }

# The log with its time stamps replaced by T, one entry per line.
entries() { sed -e 's/\[[0-9]\{3\}\.[0-9]\{3\}/[T/g' -e 's/<br>/&\n/g' | sed -e '/^$/d'; }

# Random package of the given size in bytes.
make_package() {  # file bytes
    head -c "$2" /dev/urandom >"$1"
}

# Waits until the command succeeds, polling every 50 ms, at most the seconds
# given; returns its last status.
wait_for() {  # seconds command...
    local deadline=$(($(date +%s%N) + $1 * 1000000000))
    shift
    until "$@"; do
        [ "$(date +%s%N)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

has_upload_file() { compgen -G "$ROOT/var-tmp/lighttpd-upload-*" >/dev/null; }
recorded() { grep -q -- "$1" "$ROOT/fake/record" 2>/dev/null; }
log_has() { grep -q -- "$1" "$ROOT/var-log/updater-cgi.log" 2>/dev/null; }

# Progress requests every 150 ms into a file, one answer a line, until an
# error entry shows or the file "stop-polls" appears: a request after an
# error ending has deleted the log would start a new one.
poll_progress() {  # file
    : >"$1"
    rm -f "$ROOT/stop-polls"
    local answer
    while [ ! -e "$ROOT/stop-polls" ]; do
        answer=$(progress)
        printf '%s\n' "$answer" >>"$1"
        [[ $answer == *'ERROR: '* ]] && break
        sleep 0.15
    done
}

# Samples the device's files from the host about every 2 ms until the file
# "stop-sampling" appears, one line a sample: time in seconds, lock file
# present (0/1), upload file present (0/1), content of the status file (- when
# absent, empty for state 0). Builtins only, so the samples come fast without
# costing a core.
sample_files() {  # file
    local fifo=$ROOT/sampler.fifo lock upload state
    rm -f "$fifo" "$ROOT/stop-sampling"
    mkfifo "$fifo"
    exec 9<>"$fifo"
    : >"$1"
    while [ ! -e "$ROOT/stop-sampling" ]; do
        lock=0 upload=0 state=-
        [ -e "$ROOT/var-log/updater-cgi.lock" ] && lock=1
        has_upload_file && upload=1
        if [ -e "$ROOT/var-log/updater-cgi.status" ]; then
            state=
            read -r state <"$ROOT/var-log/updater-cgi.status" 2>/dev/null
        fi
        echo "$EPOCHREALTIME $lock $upload ${state:-0}" >>"$1"
        read -r -t 0.002 -u 9 || true
    done
    exec 9<&-
}

# From samples: milliseconds from the upload file's disappearance (lighttpd
# starts the POST process) to state 2 written (the update has taken over).
window_ms() {  # samples
    awk '$3 == 1 { seen = 1 } seen && $3 == 0 && !gone { gone = $1 }
         gone && $4 == 2 { printf "%.0f\n", ($1 - gone) * 1000; exit }' "$1"
}
