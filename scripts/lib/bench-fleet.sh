#!/usr/bin/env bash
# update-device against a fleet: DEVICES device roots, each with its own
# lighttpd on 127.0.0.1, updated with --parallel DEVICES from one process,
# against the same client updating one of them alone. Whole updates up to
# the success entry (--no-wait: the devices' reboots are played between
# runs, outside the time), of a 4 MiB package, with the demo's device timings (preupdate.sh 1 s, the
# installer 5 s), in ROUNDS alternating rounds; between runs every device
# ends its update (the pause before the reboot). Peak memory is the client's
# own (GNU time's maximum resident set). Appends one line to RESULTS:
#   client_fleet devices=N one_s=... all_s=... ratio=... one_kib=... all_kib=... per_device_kib=...
# Usage: scripts/lib/bench-fleet.sh TREE RESULTS DEVICES ROUNDS
set -euo pipefail
tree=$1 results=$2 count=$3 rounds=$4
root=$(cd "$(dirname "$0")/../.." && pwd)
export E2E_WORK=$tree/e2e UPDATER_BIN=$tree/stripped/updater CGI_HEADER_BIN=$tree/deploy/cgi-header
# shellcheck source=../../tests/e2e/lib.sh
. "$root/tests/e2e/lib.sh"
mkdir -p "$E2E_WORK"
client=$tree/src/client/update-device

roots=() urls=()
stop_all() { for r in "${roots[@]}"; do ROOT=$r device_stop; done; }
trap stop_all EXIT
# Each device root has its own key: known at the first contact.
rm -f "$tree/fleet.known"
for i in $(seq "$count"); do
    device_init "fleet_$i"
    [ "$i" = 1 ] || echo "$AUTH" >"$ROOT/credentials"
    echo 1 >"$ROOT/fake/preupdate-delay" && echo 5 >"$ROOT/fake/installer-delay"
    device_start
    roots+=("$ROOT") urls+=("$BASE")
done
package $((4 << 20))
pkg=$ROOT/pkg
export UPDATE_DEVICE_PASSWORD=${AUTH#*:}

# Every update so far has ended with its reboot command (the fake records it):
# a small package's upload takes no lock, so the lock cannot tell.
all_done() {
    for r in "${roots[@]}"; do
        [ "$(grep -c '^updater' "$r/fake/record" 2>/dev/null)" = "$(grep -c '^reboot' "$r/fake/record" 2>/dev/null)" ] || return 1
    done
}
# Then the devices go down as their reboot commands ask (the fake only
# records them): until then, each one's update guard keeps it busy. Not in a
# subshell: a device's server lives as long as the shell that started it.
reboot_all() {
    wait_for 60 all_done
    local r
    for r in "${roots[@]}"; do
        ROOT=$r BASE=$(cat "$r/server/url") PLAIN=$(cat "$r/server/plain-url") &&
            PORT=${BASE##*:} DEVICE_ARGS=() && device_reboot 0
    done
}
# Prints "seconds peak-KiB" of one client run; every device must succeed.
run() {  # URLs...
    local start=$EPOCHREALTIME
    /usr/bin/time -f %M -o "$tree/fleet.rss" "$client" --user "${AUTH%%:*}" --no-wait \
        --known-devices "$tree/fleet.known" \
        --parallel "$count" "$@" "$pkg" >"$tree/fleet.out" 2>&1 ||
        { echo "bench-fleet: the client failed:" && tail -n 20 "$tree/fleet.out"; } >&2
    echo "$start $EPOCHREALTIME $(tail -n 1 "$tree/fleet.rss")" | awk '{ printf "%.3f %s\n", $2 - $1, $3 }'
}

one=() all=() one_kib=() all_kib=()
for _ in $(seq "$rounds"); do
    reboot_all && read -r s k < <(run "${urls[0]}") && one+=("$s") one_kib+=("$k")
    reboot_all && read -r s k < <(run "${urls[@]}") && all+=("$s") all_kib+=("$k")
done
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
o=$(median "${one[@]}") a=$(median "${all[@]}") ok=$(median "${one_kib[@]}") ak=$(median "${all_kib[@]}")
echo "client_fleet devices=$count one_s=$o all_s=$a ratio=$(awk -v o="$o" -v a="$a" 'BEGIN { printf "%.2f", a / o }')" \
    "one_kib=$ok all_kib=$ak per_device_kib=$(awk -v o="$ok" -v a="$ak" -v n="$count" 'BEGIN { printf "%.0f", (a - o) / (n - 1) }')" \
    >>"$results"
