# Sourced by the end-to-end driver, the reliability runs, scripts/demo and
# scripts/bench: a device root served by device-lighttpd, and requests made
# as the update page makes them (signed in, with the page's own header).
# Needs UPDATER_BIN, CGI_HEADER_BIN and E2E_WORK. After device_start: ROOT,
# BASE (the server's URL, https://...), CGI (the program's), PORT, PLAIN
# (the plain port's URL), CACERT (the device's certificate), PIN (its key's
# digest as update-device --pin takes it), AUTH ("user:password").
E2E_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

passed=0 failed=0
check() {  # name expected actual
    if [ "$2" == "$3" ]; then passed=$((passed + 1)) && echo "ok   $1"
    else failed=$((failed + 1)) && printf 'FAIL %s\n     expected: %q\n     actual:   %q\n' "$1" "$2" "$3"; fi
}
check_true() { if "${@:2}"; then check "$1" yes yes; else check "$1" yes no; fi; } # name command...
finish() { echo "$passed passed, $failed failed" && [ "$failed" -eq 0 ]; }

# A fresh device root under E2E_WORK with updates enabled and instant fakes.
device_init() { ROOT=$E2E_WORK/$1 && rm -rf "$ROOT" && mkdir -p "$ROOT/fake" && echo true >"$ROOT/fake/uci-value" && "$E2E_DIR/device-status" "$ROOT"; }
# DEVICE_NETNS: lighttpd runs in that network namespace.
in_netns() { if [ -n "${DEVICE_NETNS:-}" ]; then ip netns exec "$DEVICE_NETNS" "$@"; else "$@"; fi; }
device_start() {  # [device-lighttpd options...]
    DEVICE_ARGS=("$@")
    in_netns "$E2E_DIR/device-lighttpd" --root "$ROOT" --updater "$UPDATER_BIN" --adaptor "$CGI_HEADER_BIN" "$@" >/dev/null || return 1
    BASE=$(cat "$ROOT/server/url") AUTH=$(cat "$ROOT/credentials") && CGI=$BASE/cgi-bin/updater PORT=${BASE##*:}
    PLAIN=$(cat "$ROOT/server/plain-url") CACERT=$ROOT/server/cert.pem PIN=$(cat "$ROOT/server/pin")
}
device_stop() { in_netns "$E2E_DIR/device-lighttpd" --root "$ROOT" --stop; }
# What a reboot does: the server goes away, the volatile /var/log, /tmp,
# /var/tmp and /run/updater are emptied, /tolven/local stays; the boot writes
# the device status document.
device_reboot() {  # seconds down
    device_stop && rm -rf "${ROOT:?}"/var-log/* "$ROOT"/tmp/* "$ROOT"/var-tmp/* "$ROOT"/run-updater/*
    "$E2E_DIR/device-status" "$ROOT"
    sleep "${1:-2}" && device_start_again
}
# lighttpd killed and started again, as systemd does; its CGIs go on.
device_restart() { kill -KILL "$(cat "$ROOT/server/lighttpd.pid")" && wait_for 5 eval '! kill -0 "$(cat "$ROOT/server/lighttpd.pid")" 2>/dev/null' && device_start_again; }
device_start_again() {
    local https plain
    https=$(cat "$ROOT/server/url") plain=$(cat "$ROOT/server/plain-url")
    device_start "${DEVICE_ARGS[@]}" --port "${https##*:}" --plain-port "${plain##*:}"
}

# curl's own choice of HTTP version, as a user's curl makes it.
page() { curl -sS --max-time 20 --cacert "$CACERT" --digest -u "$AUTH" -H 'X-Updater-Page: 1' "$@"; }
progress() { page "$CGI?request=1"; }
lock_state() { page "$CGI?status=1"; }
# A random package in ROOT/pkg, and what the installer fake records of it.
package() {  # bytes
    head -c "$1" /dev/urandom >"$ROOT/pkg"
    installed="updater -f /tmp/updater-cgi-temp.pkg sha256=$(sha256sum <"$ROOT/pkg" | cut -d' ' -f1) size=$1"
}
# Posts ROOT/pkg as the page does and prints the status. In the background
# only: the job becomes curl itself, so that $! is curl's pid.
post() {  # curl options...
    exec curl -sS --max-time 180 --cacert "$CACERT" --digest -u "$AUTH" -H 'X-Updater-Page: 1' -o "$ROOT/post.body" \
        -w '%{http_code}' "$@" -F "package=@$ROOT/pkg;filename=fw.pkg" "$CGI"
}

# The device in a network namespace of its own, on the device's ports behind
# the device's packet filter (deploy/device/nftables.conf), reached from a
# second namespace holding two addresses: FLOOD_NET.1 the user's, .3 another
# host's. Needs root; nothing of it touches this machine's own network.
flood_start() {
    FLOOD_NS=fl$$ FLOOD_NET=10.$((RANDOM % 200 + 20)).$((RANDOM % 250)) DEVICE_NETNS=fl$$-dev
    local ns=$FLOOD_NS net=$FLOOD_NET n
    ip netns add "$ns-dev" && ip netns add "$ns-cli" &&
        ip link add "$ns-d" netns "$ns-dev" type veth peer name "$ns-c" netns "$ns-cli" || return
    ip -n "$ns-dev" addr add "$net.2/24" dev "$ns-d" && ip -n "$ns-dev" addr add "$net.4/24" dev "$ns-d"
    ip -n "$ns-cli" addr add "$net.1/24" dev "$ns-c" && ip -n "$ns-cli" addr add "$net.3/24" dev "$ns-c"
    for n in dev cli; do ip -n "$ns-$n" link set lo up && ip -n "$ns-$n" link set "$ns-${n:0:1}" up; done
    # The other host's address: whatever goes to the device's second address.
    ip -n "$ns-cli" route add "$net.4/32" dev "$ns-c" src "$net.3"
    ip netns exec "$ns-dev" sysctl -qw net.ipv4.ip_unprivileged_port_start=0
    ip netns exec "$ns-dev" nft -f "$E2E_DIR/../../deploy/device/nftables.conf" &&
        device_start --uid 1000 --bind 0.0.0.0 --port 443 --plain-port 80
}
flood_stop() { device_stop; ip netns del "$FLOOD_NS-dev"; ip netns del "$FLOOD_NS-cli"; }
# 2,000 idle connections from the other host, half of them with a request
# begun, held while the user's signed-in lock-state request runs. Prints
# "connections-held answer seconds".
flood_round() {
    local hold=$ROOT/flood-hold answer
    rm -f "$hold" "$ROOT/flood-held" && mkfifo "$hold"
    ip netns exec "$FLOOD_NS-cli" bash -c 'ulimit -n 4200; open=0; for i in $(seq 2000); do
        port=$((i % 2 ? 443 : 80)); exec {fd}<>"/dev/tcp/$1/$port" 2>/dev/null || continue
        open=$((open + 1)); [ $port = 443 ] || printf "GET /update/ HTTP/1.1\r\nHost: $1\r\n" >&$fd; done
        echo "$open" >"$2"; read -r _' flood "$FLOOD_NET.4" "$ROOT/flood-held" <"$hold" &
    exec {hold_fd}>"$hold"
    wait_for 60 test -s "$ROOT/flood-held"
    answer=$(ip netns exec "$FLOOD_NS-cli" curl -sS --http1.1 --interface "$FLOOD_NET.1" --max-time 10 -k \
        --pinnedpubkey "$PIN" --digest -u "$AUTH" -H 'X-Updater-Page: 1' -w ' %{time_total}' \
        "https://$FLOOD_NET.2/cgi-bin/updater?status=1" 2>/dev/null)
    exec {hold_fd}>&-
    wait $!
    echo "$(cat "$ROOT/flood-held") ${answer:-none}"
}

# Polls the command every 50 ms until it succeeds, at most the seconds given.
wait_for() {  # seconds command...
    local deadline=$((${EPOCHREALTIME/./} + $1 * 1000000))
    until "${@:2}"; do [ "${EPOCHREALTIME/./}" -lt "$deadline" ] && sleep 0.05 || return 1; done
}

# Requests that must never reach the program: no credentials, wrong ones, no
# user file or an empty one, without the page's header, marked cross-site or
# same-site, paths below the program's, another Host; a signed-in request's
# header replayed to the plain port (over HTTPS it cannot be seen; taken
# here from a request the missing page header kept from the program). One
# line each on standard output: "expected-status status".
hostile_requests() {
    local a="--digest -u $AUTH" h=-HX-Updater-Page:1 x=-HSec-Fetch-Site:cross-site f=-Fpackage=@$ROOT/pkg
    ask() { echo "$1 $(curl -s --http1.1 --max-time 20 --cacert "$CACERT" -o /dev/null -w '%{http_code}' "${@:2}")"; }
    local seen plain=$PLAIN/cgi-bin/updater
    seen=$(curl -sv --http1.1 --cacert "$CACERT" $a -o /dev/null "$CGI?reboot=1" 2>&1 |
        sed -n 's/^> \(Authorization: .*\)\r$/\1/p')
    ask 301 -H "$seen" $h "$plain?reboot=1"; ask 301 -H "$seen" $h $f "$plain"; ask 301 $a $h "$plain?status=1"
    ask 403 $a $h -HSec-Fetch-Site:same-site "$CGI?reboot=1"; ask 403 $a $h -HSec-Fetch-Site:same-site $f "$CGI"
    ask 403 $a $h "$CGI/"; ask 403 $a $h "$CGI/x"; ask 403 $a $h "$CGI%2F"; ask 403 $a $h -HHost:device.example "$CGI?reboot=1"
    ask 401 "$BASE/update/"; ask 401 $h "$CGI?request=1"; ask 401 $h "$CGI?status=1"; ask 401 $h "$CGI?reboot=1"
    ask 401 $h $f "$CGI"; ask 401 --digest -u "${AUTH%%:*}:wrong" $h "$CGI?reboot=1"
    ask 403 $a "$CGI?reboot=1"; ask 403 $a -HX-Updater-Page:0 "$CGI?request=1"; ask 403 $a $f "$CGI"
    ask 403 $a "$CGI/x?status=1"; ask 403 $a $h $x "$CGI?reboot=1"; ask 403 $a $h $x $f "$CGI"
    mv "$ROOT/server/updater.htdigest" "$ROOT/users" && ask 401 $a $h "$CGI?reboot=1" # no user file
    : >"$ROOT/server/updater.htdigest" && ask 401 $a $h "$CGI?reboot=1" && mv "$ROOT/users" "$ROOT/server/updater.htdigest"
}
