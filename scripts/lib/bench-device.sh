#!/usr/bin/env bash
# scripts/bench --device: figures taken on the emulated device (scripts/device)
# and printed as one table. Under emulation only ratios mean something.
#   - boot: qemu's start to lighttpd answering, and to the update page
#     answering (signed in); a power cut, to the update page answering
#     after the power on;
#   - a 16 MiB update: from the upload's start to the POST's end, to the
#     guest's kernel starting again, and to the page answering again; over
#     HTTPS as the device serves, and over plain HTTP (the benchmark image's
#     plain port serves instead of redirecting);
#   - lock-state and progress requests/s through the device's lighttpd (wrk
#     from the host, through qemu's port forward), in the receiving state,
#     against a minimal C CGI on the same machine. The benchmark image adds
#     that CGI (bench/minimal_cgi.c, built for ARM) and runs it in the
#     adaptor's place for the same URL when the query names "minimal", so
#     both sides pass the same lighttpd configuration.
# Usage: scripts/lib/bench-device.sh [--quick]   (as root)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
quick=0
[ "${1:-}" = --quick ] && quick=1
work=$root/build/bench-device
run=$work/run
overlay=$work/overlay
rm -rf "$overlay"
mkdir -p "$overlay/usr/lib/updater" "$overlay/etc/lighttpd/conf.d"
arm-linux-gnueabihf-gcc -std=c99 -Os -s -o "$overlay/usr/lib/updater/minimal-cgi" bench/minimal_cgi.c
cat >"$overlay/etc/lighttpd/conf.d/zz-bench.conf" <<'CONF'
$HTTP["url"] == "/cgi-bin/updater" {
    $HTTP["querystring"] =~ "minimal" {
        cgi.assign = ( "/updater" => "/usr/lib/updater/minimal-cgi" )
    }
}
CONF
# The device's main configuration without the plain port's redirect.
mkdir -p "$overlay/etc/lighttpd"
awk '/^\$HTTP\["scheme"\] == "http" \{/ { skip = 1 } !skip { print } skip && /^}/ { skip = 0 }' \
    deploy/device/lighttpd.conf >"$overlay/etc/lighttpd/lighttpd.conf"

scripts/device start --run "$run" --overlay "$overlay"
slow=
trap '[ -z "$slow" ] || kill "$slow"; scripts/device stop --run "$run"' EXIT
trap 'exit 1' INT TERM
base=https://127.0.0.1:$(cat "$run/port") CACERT=$run/cert.pem
cgi=$base/cgi-bin/updater
# Signed in, with the page's header: page() of the end-to-end helpers.
AUTH=$(cat "$run/credentials")
# shellcheck source=../../tests/e2e/lib.sh
. tests/e2e/lib.sh
boots() { grep -c '] Linux version' "$run/serial.log"; }
now() { date +%s%N; }
seconds() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", (b - a) / 1e9 }'; }
page_answers() { [ "$(page -o /dev/null -m 5 -w '%{http_code}' "$base/update/" 2>/dev/null)" = 200 ]; }
# Seconds from a boot's start to the update page answering: scripts/device
# has timed it to lighttpd's first answer.
page_up() {
    local from
    from=$(now)
    until page_answers; do sleep 0.2; done
    awk -v b="$(cat "$run/boot-seconds")" -v a="$from" -v e="$(now)" 'BEGIN { printf "%.1f", b + (e - a) / 1e9 }'
}
boot_web=$(cat "$run/boot-seconds") boot_page=$(page_up)
# The answer after the sign-in's 401: status, headers but the date, body.
answer() { page -i "$cgi?$1" | tr -d '\r' | awk '/^HTTP\// { out = "" } !/^Date:/ { out = out $0 "\n" } END { printf "%s", out }'; }

# ---- requests in the receiving state ------------------------------------------
# A slow upload keeps lighttpd's upload file on the device; the first
# progress request that sees it takes the lock.
head -c $((64 * 1048576)) /dev/zero >"$work/slow.bin"
# curl itself is the job, so that $! is its pid.
curl -sS --http1.1 --cacert "$CACERT" -o /dev/null --digest -u "$AUTH" -H 'X-Updater-Page: 1' --limit-rate 100K \
    -F "package=@$work/slow.bin" "$cgi" &
slow=$!
for _ in $(seq 60); do
    [ "$(answer status=1 | tail -n 1)" = STATUS_BUSY ] && break
    answer request=1 >/dev/null
    sleep 1
done
for query in status=1 request=1; do
    [ "$(answer "$query")" = "$(answer "$query&minimal")" ] ||
        { echo "bench: the minimal CGI does not answer $query like updater" >&2; exit 1; }
done

seconds_each=10 rounds=3
[ "$quick" = 1 ] && seconds_each=3 rounds=1
# wrk sends one digest answer that curl worked out (lighttpd checks its
# nonce's age, not a count).
rps() {  # query
    local authorization
    authorization=$(page -v -o /dev/null "$cgi?$1" 2>&1 | sed -n 's/^> \(Authorization: .*\)\r$/\1/p')
    local out
    out=$(wrk -t1 -c2 -d"${seconds_each}s" --timeout 10s -H 'X-Updater-Page: 1' -H "$authorization" "$cgi?$1")
    ! grep -q 'Non-2xx' <<<"$out" || { echo "bench: wrk: error answers for $1" >&2; exit 1; }
    awk '/^Requests\/sec:/ { print $2 }' <<<"$out"
}
median() { tr ' ' '\n' | grep -v '^$' | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
declare -A runs
for _ in $(seq "$rounds"); do
    for query in status=1 request=1; do
        runs[$query]+=" $(rps "$query")"
        runs[$query.minimal]+=" $(rps "$query&minimal")"
    done
done
[ "$(answer status=1 | tail -n 1)" = STATUS_BUSY ] ||
    { echo "bench: the receiving state ended before the measurements did" >&2; exit 1; }
kill "$slow" 2>/dev/null
wait "$slow" 2>/dev/null || true
slow=
# lighttpd drops the aborted upload's file; a lock-state request then frees
# the lock, as the page's next one would.
for _ in $(seq 30); do
    [ "$(answer status=1 | tail -n 1)" = STATUS_FREE ] && break
    sleep 1
done
[ "$(answer status=1 | tail -n 1)" = STATUS_FREE ] || { echo "bench: the lock outlived the slow upload" >&2; exit 1; }

# ---- a 16 MiB update to the reboot, over HTTPS and over plain HTTP ----------------
tests/device/make-package 9.9 $((16 * 1048576)) "$work/update.tar"
# Prints "POST-seconds to-kernel-seconds to-answer-seconds"; the package
# must be installed.
update_to_reboot() {  # base-url
    local start rebooted back booted
    booted=$(boots) start=$(now)
    page -o /dev/null -w '%{time_total}\n' --max-time 300 -F "package=@$work/update.tar" "$1/cgi-bin/updater" \
        >"$work/update.post" 2>/dev/null &
    until [ "$(boots)" -gt "$booted" ]; do
        [ $(($(now) - start)) -lt 600000000000 ] || { echo "bench: no reboot" >&2; exit 1; }
        sleep 0.2
    done
    rebooted=$(now)
    until page_answers; do
        [ $(($(now) - start)) -lt 900000000000 ] || { echo "bench: not back" >&2; exit 1; }
        sleep 0.5
    done
    back=$(now)
    wait
    [ "$(curl -sS --cacert "$CACERT" "$base/version.txt")" = 9.9 ] || { echo "bench: the update did not install" >&2; exit 1; }
    echo "$(printf '%.1f' "$(cat "$work/update.post")") $(seconds "$start" "$rebooted") $(seconds "$start" "$back")"
}
read -r post_s kernel_s back_s < <(update_to_reboot "$base")
page "$base/update/last/updater-cgi.log" >"$work/update.log"
read -r plain_post_s plain_kernel_s plain_back_s < <(update_to_reboot "http://127.0.0.1:$(cat "$run/plain-port")")
[ -n "$back_s" ] && [ -n "$plain_back_s" ] || exit 1
scripts/device cut --run "$run" && scripts/device power-on --run "$run"
cut_page=$(page_up)

# ---- table ------------------------------------------------------------------------
row() { printf '| %s | %s | %s | %s |\n' "$@"; }
echo
echo "| figure (emulated device: qemu-system-arm virt, Cortex-A15, 512 MiB) | updater | reference | ratio |"
echo "|---|---|---|---|"
row "boot to lighttpd answering" "$boot_web s" "" ""
row "boot to the update page answering (signed in)" "$boot_page s" "" ""
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
row "16 MiB update over HTTPS, upload start to the POST's end (answered, or cut by the shutdown)" \
    "$post_s s" "plain HTTP $plain_post_s s" "$(ratio "$plain_post_s" "$post_s")"
row "the same, to the kernel starting again" "$kernel_s s" "plain HTTP $plain_kernel_s s" "$(ratio "$plain_kernel_s" "$kernel_s")"
row "the same, to the update page answering again" "$back_s s" "plain HTTP $plain_back_s s" "$(ratio "$plain_back_s" "$back_s")"
row "power cut, power on, to the update page answering" "$cut_page s" "" ""
for query in status=1 request=1; do
    u=$(median <<<"${runs[$query]}") m=$(median <<<"${runs[$query.minimal]}")
    name=lock-state
    [ "$query" = request=1 ] && name=progress
    row "$name requests/s through lighttpd (wrk, receiving state)" "$u /s" "minimal C CGI $m /s" \
        "$(awk -v u="$u" -v m="$m" 'BEGIN { printf "%.2f", u / m }')"
done
