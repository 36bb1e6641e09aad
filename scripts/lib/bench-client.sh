#!/usr/bin/env bash
# The upload throughput of update-device against curl -F: the same 128 MiB
# package to the same lighttpd in a device root, both signed in, both capped
# at 64 MiB/s (--limit-rate 64M), in alternating pairs. Uncapped, a body takes
# a tenth of a second on loopback and single pairs ranged from 0.4 to 3.2 on
# a shared machine; capped, each takes 2 s and the figure is steady.
# And update-device over HTTPS against itself over plain HTTP to the same
# lighttpd (its plain port serving, as the device's never does): TLS's cost.
# Updates are disabled on the device, so each POST ends soon after its body.
# Both sides are timed alike, from outside: from lighttpd's upload file
# appearing in /var/tmp (the body starts to arrive) to its going (the body is
# complete and the POST starts). Appends one line to RESULTS, the medians of
# each side and of the rounds' ratios (curl's time / the client's; plain
# HTTP's time / HTTPS's):
#   client_upload client_MBps=... curl_MBps=... ratio=... low=... high=...
#                 tls_MBps=... plain_MBps=... tls_ratio=...
# Usage: scripts/lib/bench-client.sh TREE RESULTS PAIRS
set -euo pipefail
tree=$1 results=$2 pairs=$3
root=$(cd "$(dirname "$0")/../.." && pwd)
export E2E_WORK=$tree/e2e UPDATER_BIN=$tree/stripped/updater CGI_HEADER_BIN=$tree/deploy/cgi-header
# shellcheck source=../../tests/e2e/lib.sh
. "$root/tests/e2e/lib.sh"
mkdir -p "$E2E_WORK"
device_init client_upload
device_start --plain-http
trap device_stop EXIT
echo false >"$ROOT/fake/uci-value"
bytes=$((128 << 20)) rate=64M
package "$bytes"
pkg=$ROOT/pkg
has_upload_file() { compgen -G "$ROOT/var-tmp/lighttpd-upload-*" >/dev/null; }

# Seconds the body took, sampled every millisecond while the command runs.
body_seconds() {  # command...
    local fifo=$ROOT/sampler.fifo start= end=
    rm -f "$fifo"
    mkfifo "$fifo"
    exec 9<>"$fifo"
    "$@" >/dev/null 2>&1 &
    local job=$!
    while [ -z "$end" ]; do
        if has_upload_file; then
            start=${start:-$EPOCHREALTIME}
        elif [ -n "$start" ]; then
            end=$EPOCHREALTIME
        elif ! kill -0 "$job" 2>/dev/null; then
            echo "bench-client: $1 ended before its upload" >&2
            exit 1
        fi
        read -r -t 0.001 -u 9 || true
    done
    wait "$job" || true
    exec 9<&-
    echo "$start $end" | awk '{ printf "%.4f\n", $2 - $1 }'
}

# TLS's cost: 192 MiB, the largest package the rig's device takes, uncapped.
tls_bytes=$((192 << 20))
head -c "$tls_bytes" /dev/urandom >"$ROOT/pkg-tls"
client=() curl_side=() ratios=() tls=() plain=() tls_ratios=()
upload() {  # base-url package [update-device options...]
    UPDATE_DEVICE_PASSWORD=${AUTH#*:} body_seconds "$tree/src/client/update-device" \
        --user "${AUTH%%:*}" --cacert "$CACERT" "${@:3}" "$1" "$2"
}
for _ in $(seq "$pairs"); do
    c=$(upload "$BASE" "$pkg" --limit-rate "$rate")
    r=$(body_seconds curl -sS --http1.1 --cacert "$CACERT" -o /dev/null --limit-rate "$rate" --digest -u "$AUTH" \
        -H 'X-Updater-Page: 1' -F "package=@$pkg" "$CGI")
    t=$(upload "$BASE" "$ROOT/pkg-tls") p=$(upload "$PLAIN" "$ROOT/pkg-tls")
    client+=("$c") curl_side+=("$r") ratios+=("$(awk -v c="$c" -v r="$r" 'BEGIN { print r / c }')")
    tls+=("$t") plain+=("$p") tls_ratios+=("$(awk -v t="$t" -v p="$p" 'BEGIN { print p / t }')")
done
rm -f "$pkg" "$ROOT/pkg-tls"
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
echo "client_upload client_MBps=$(awk -v s="$(median "${client[@]}")" -v b="$bytes" 'BEGIN { printf "%.0f", b / s / 1e6 }')" \
    "curl_MBps=$(awk -v s="$(median "${curl_side[@]}")" -v b="$bytes" 'BEGIN { printf "%.0f", b / s / 1e6 }')" \
    "ratio=$(median "${ratios[@]}")" "low=$(printf '%s\n' "${ratios[@]}" | sort -g | head -n 1)" \
    "high=$(printf '%s\n' "${ratios[@]}" | sort -g | tail -n 1)" \
    "tls_MBps=$(awk -v s="$(median "${tls[@]}")" -v b="$tls_bytes" 'BEGIN { printf "%.0f", b / s / 1e6 }')" \
    "plain_MBps=$(awk -v s="$(median "${plain[@]}")" -v b="$tls_bytes" 'BEGIN { printf "%.0f", b / s / 1e6 }')" \
    "tls_ratio=$(median "${tls_ratios[@]}")" >>"$results"
