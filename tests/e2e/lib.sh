# Sourced by the end-to-end driver, the reliability runs, scripts/demo and
# scripts/bench: a device root served by device-lighttpd, and requests made
# as the update page makes them (signed in, with the page's own header).
# Needs UPDATER_BIN, CGI_HEADER_BIN and E2E_WORK. After device_start: ROOT,
# BASE (the server's URL), CGI (the program's), PORT, AUTH ("user:password").

E2E_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

passed=0 failed=0
check() {  # name expected actual
    if [ "$2" == "$3" ]; then
        passed=$((passed + 1))
        echo "ok   $1"
    else
        failed=$((failed + 1))
        printf 'FAIL %s\n     expected: %q\n     actual:   %q\n' "$1" "$2" "$3"
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

# A fresh device root under E2E_WORK with updates enabled and instant fakes.
device_init() {  # name
    ROOT=$E2E_WORK/$1
    rm -rf "$ROOT"
    mkdir -p "$ROOT/fake"
    echo true >"$ROOT/fake/uci-value"
}
device_start() {  # [device-lighttpd options...]
    DEVICE_ARGS=("$@")
    "$E2E_DIR/device-lighttpd" --root "$ROOT" --updater "$UPDATER_BIN" \
        --adaptor "$CGI_HEADER_BIN" "$@" >/dev/null || return 1
    BASE=$(cat "$ROOT/server/url") AUTH=$(cat "$ROOT/credentials")
    CGI=$BASE/cgi-bin/updater PORT=${BASE##*:}
}
device_stop() { "$E2E_DIR/device-lighttpd" --root "$ROOT" --stop; }
# What a reboot does: the server goes away, the volatile /var/log, /tmp and
# /var/tmp are emptied, /tolven/local stays.
device_reboot() {  # seconds down
    device_stop
    rm -rf "${ROOT:?}"/var-log/* "$ROOT"/tmp/* "$ROOT"/var-tmp/*
    sleep "${1:-2}"
    device_start "${DEVICE_ARGS[@]}" --port "$PORT"
}

page() { curl -sS --max-time 20 --digest -u "$AUTH" -H 'X-Updater-Page: 1' "$@"; }
progress() { page "$CGI?request=1"; }
lock_state() { page "$CGI?status=1"; }

# Polls the command every 50 ms until it succeeds, at most the seconds given.
wait_for() {  # seconds command...
    local deadline=$((${EPOCHREALTIME/./} + $1 * 1000000))
    shift
    until "$@"; do
        [ "${EPOCHREALTIME/./}" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# The log with its time stamps replaced by T, one entry per line.
entries() { sed -e 's/\[[0-9]\{3\}\.[0-9]\{3\}/[T/g' -e 's/<br>/&\n/g' | sed -e '/^$/d'; }

# Random package of the given size in bytes.
make_package() {  # file bytes
    head -c "$2" /dev/urandom >"$1"
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
