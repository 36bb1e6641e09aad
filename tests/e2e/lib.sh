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

