#!/usr/bin/env bash
# The emulated device (scripts/device) under power cuts, lost links and a
# full /tmp, checked from the host as a person would after each:
#   device.sh [--cuts N] [--phases LIST] [--outages SECONDS,...] [--full-disk]
#             [--deb FILE | --run DIR] [--no-next]
# Each cut comes at a moment of one phase of an update, the phases in turn,
# the moments spread over each phase:
#   body      the body arriving          complete  just after the body's end
#   install   preupdate.sh, the application's stop and the installer
#   pause     the 10 s after the success entry
#   save      the copies of the log and trace to /tolven/local
#   reboot    the reboot, from its start to the next boot's
# The update is driven in turn by update-device and by the page in chromium
# (page-update.mjs). After the cut the device is powered on again: it must
# boot and answer, its lock be free, its firmware the old or the new one,
# whole by its digest; the saved log the earlier one or this update's (cut
# short is counted, and then the page must say "unknown"); neither the page
# nor update-device may report success unless the new firmware is active and
# its log saved, and what they cannot know they must call unknown; and the
# next update must succeed. An outage pulls the network cable during an
# upload: update-device exits 8, nothing is installed, the next update
# succeeds. --full-disk: a package larger than the device's /tmp ends in
# error 3, nothing installed, the device free. --run: the device running
# there (scripts/device start) instead of one of its own; --no-next: no
# next updates, the caller's own stands for them.
# Rows to REL_WORK/results.tsv (area "device"), reasons to failures.txt;
# exits 1 if a row failed (REL_WORK: by default campaign/ in the run's
# folder). Needs CLIENT_BIN (update-device). As root.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
. "$src/tests/e2e/lib.sh"
cuts=12 phases=body,complete,install,pause,save,reboot outages=30,180 full_disk=0 start_args=() run= next=1
while [ $# -gt 0 ]; do
    case $1 in
        --cuts) cuts=$2 && shift 2 ;;
        --phases) phases=$2 && shift 2 ;;
        --outages) outages=$2 && shift 2 ;;
        --full-disk) full_disk=1 && shift ;;
        --deb) start_args=(--deb "$2") && shift 2 ;;
        --run) run=$(cd "$2" && pwd) && shift 2 ;;
        --no-next) next=0 && shift ;;
        *) sed -n '3p' "$0" >&2 && exit 2 ;;
    esac
done
[ -n "${REL_WORK:-}" ] || { REL_WORK=${run:-$src/build}/campaign && rm -rf "$REL_WORK"; }
work=$REL_WORK/device
rm -rf "$work" && mkdir -p "$work" && touch "$REL_WORK/results.tsv" "$REL_WORK/failures.txt"
device() { "$src/scripts/device" "$1" --run "$run" "${@:2}" 2>>"$work/device.log"; }
if [ -z "$run" ]; then
    run=$work/run
    device start "${start_args[@]}" || { echo "device: the device did not start" >>"$REL_WORK/failures.txt" && exit 1; }
    trap 'device stop' EXIT
fi
trap 'exit 1' INT TERM
BASE=https://127.0.0.1:$(cat "$run/port") CACERT=$run/cert.pem
AUTH=$(cat "$run/credentials") CGI=$BASE/cgi-bin/updater
row() { printf 'device\t%s\t%s\t%s\n' "$@" >>"$REL_WORK/results.tsv"; }
fail() { echo "device: $*" >>"$REL_WORK/failures.txt"; }
median_max() { sort -n | awk '{ v[NR] = $1 } END { printf "median %s s, max %s s", v[int((NR + 1) / 2)], v[NR] }'; }
count() { awk -F'\t' -v c="$1" -v v="$2" '$c == v { n++ } END { print n + 0 }' "$work/cuts.tsv"; }
size=$((6 << 20)) rate=$((1536 << 10)) # a 4 s upload

# ---- what the host sees ------------------------------------------------------
client() {  # package output options...
    UPDATE_DEVICE_PASSWORD=${AUTH#*:} timeout 900 "$CLIENT_BIN" --user "${AUTH%%:*}" --pin "$(cat "$run/pin")" \
        "${@:3}" "$BASE" "$1" >"$2" 2>&1
}
page_update() {  # output [package]
    BASE=$BASE AUTH=$AUTH PACKAGE=${2:-} RATE=$rate timeout 900 node "$here/page-update.mjs" >"$1" 2>&1
}
package() {  # version bytes: the package in PKG, its payload's digest in DIGEST
    PKG=$work/fw-$1.tar && "$src/tests/device/make-package" "$1" "$2" "$PKG"
    DIGEST=$(tar -xOf "$PKG" manifest | sed -n 's/^sha256=//p')
}
# "version digest whole|broken" of the active slot.
firmware() {
    local manifest digest
    manifest=$(curl -sS -m 20 --cacert "$CACERT" "$BASE/firmware/manifest")
    digest=$(curl -sS -m 120 --cacert "$CACERT" "$BASE/firmware/payload" | sha256sum | cut -c1-64)
    echo "$(sed -n 's/^version=//p' <<<"$manifest") $digest" \
        "$([ "sha256=$digest" = "$(grep '^sha256=' <<<"$manifest")" ] && echo whole || echo broken)"
}
saved_log() { page -o "$1" -w '%{http_code}' "$BASE/update/last/updater-cgi.log" >"$1.code"; }
# none, success, error or short (empty, or no result at its end).
log_kind() {  # file
    [ "$(cat "$1.code")" = 404 ] && echo none && return
    case $(sed 's/<br>/\n/g' "$1" | sed '/^$/d' | tail -n 1) in
        *'firmware successfully loaded'*) echo success ;;
        *'] ERROR: '*) echo error ;;
        *) echo short ;;
    esac
}
verdict_kind() {  # page-update output
    case $(sed -n 's/^verdict //p' "$1") in
        *succeeded*) echo success ;; *failed*) echo error ;; *unknown*) echo short ;; 'No update'*) echo none ;; *) echo '?' ;;
    esac
}
log_has() { [[ $(progress 2>/dev/null) == *"$1"* ]]; }
until_log() { local end=$((SECONDS + $2)); until log_has "$1"; do [ $SECONDS -lt $end ] || return 1; sleep 0.25; done; }
after() { sleep "$(awk -v a="$1" -v b="$2" -v u="$3" 'BEGIN { print a + b * u }')"; } # a + b * u seconds

# The moment of a phase, u in (0, 1) along it; false if the update never got
# there. While the body arrives the driver's output tells: a progress request
# of a second client then could meet the driver's and end in error 10, whose
# ending saves its log over the last update's.
moment() {  # phase u driver-output
    [ "$1" = body ] && { wait_for 60 grep -qs '^sending' "$3" && after 0.5 3 "$2"; return; }
    wait_for 120 grep -qs 'upload complete' "$3" || return 1
    case $1 in
        complete) after 0 1 "$2" ;;
        install) until_log 'stopping the application' 120 && after 0 2.5 "$2" ;;
        pause) until_log 'firmware successfully loaded' 120 && after 0 9.5 "$2" ;;
        save) until_log 'firmware successfully loaded' 120 && after 9.5 1.5 "$2" ;;
        reboot) until_log 'firmware successfully loaded' 120 && after 11.5 30 "$2" ;;
    esac
}

# A whole update must succeed: exit 0, the new firmware whole, its log saved.
next_update() {  # version
    [ "$next" = 1 ] || return 2
    package "$1" "$size" && saved_log "$work/next-before"
    client "$PKG" "$work/next-$1.out" --timeout 600 && saved_log "$work/next-after" &&
        [ "$(firmware)" = "$1 $DIGEST whole" ] && [ "$(log_kind "$work/next-after")" = success ] &&
        ! cmp -s "$work/next-before" "$work/next-after"
}

# ---- power cuts --------------------------------------------------------------
cut_at() {  # index phase u driver
    local i=$1 phase=$2 u=$3 driver=$4 out=$work/cut-$1.out
    local old new client_rc=- booted=no lock fw saved state page_ok=yes client_ok=yes after=no shown=$out
    old=$(firmware) && saved_log "$work/before-$i"
    package "6.$i" "$size" && new="6.$i $DIGEST whole"
    if [ "$driver" = client ]; then client "$PKG" "$out" --limit-rate "$rate" --timeout 600 &
    else page_update "$out" "$PKG" & fi
    local job=$!
    moment "$phase" "$u" "$out" || fail "cut $i: the update never reached its $phase phase"
    device cut && device power-on && booted=yes
    wait "$job"
    local rc=$?
    [ "$driver" = page ] || { client_rc=$rc shown=$out.page && page_update "$shown"; }
    lock=$(lock_state) fw=$(firmware) && saved_log "$work/after-$i"
    case $fw in "$old") fw=old ;; "$new") fw=new ;; *) fw="broken($fw)" ;; esac
    saved=$(log_kind "$work/after-$i") state=this-$saved
    cmp -s "$work/before-$i" "$work/after-$i" && state=earlier
    # The page reads the saved log as it is; its own update never claims a
    # success that is not there, and calls unknown what it cannot know.
    [ "$(verdict_kind "$shown")" = "$saved" ] || page_ok=no
    local outcome
    outcome=$(sed -n 's/^outcome outcome //p' "$out")
    case $outcome in
        success*) [ "$fw/$state" = new/this-success ] || page_ok=no ;;
        error*) [[ $outcome == *unknown* ]] || page_ok=no ;;
    esac
    case $client_rc in
        -) ;;
        0) [ "$fw/$state" = new/this-success ] || client_ok=no ;;
        8) [ "$fw" = old ] || client_ok=no ;;
        *) grep -q 'outcome is unknown' "$out" || client_ok=no ;;
    esac
    next_update "7.$i"
    case $? in 0) after=yes ;; 2) after=- ;; esac
    printf '%s\t' "$i" "$phase" "$u" "$driver" "$booted" "$(cat "$run/boot-seconds")" "$lock" "$fw" "$state" \
        "$page_ok" "$client_ok" "$client_rc" >>"$work/cuts.tsv"
    echo "$after" >>"$work/cuts.tsv"
    echo "cut $i ($phase, u=$u, $driver): booted $booted, $lock, firmware $fw, saved log $state," \
        "page $page_ok, client $client_ok ($client_rc), next update $after"
    rm -f "$work"/fw-*.tar
}

# ---- the cable pulled during an upload ---------------------------------------
IFS=, read -ra seconds <<<"$outages"
for s in "${seconds[@]}"; do
    [ -n "$s" ] || continue
    start=$SECONDS old=$(firmware) && package "8.$s" $((16 << 20))
    client "$PKG" "$work/outage-$s.out" --limit-rate 1M --timeout 600 &
    job=$!
    wait_for 60 grep -qs 'receiving package file' "$work/outage-$s.out" && sleep 2 && device link down && sleep "$s" && device link up
    wait "$job"
    rc=$? lock=$(lock_state) fw=$(firmware) after=no
    next_update "9.$s"
    case $? in 0) after=yes ;; 2) after=- ;; esac
    row "network link down for $s s during an upload" \
        "$([[ "$rc/$lock/$fw/$after" == "8/STATUS_FREE/$old/"[-y]* ]] && echo pass || echo FAIL)" \
        "update-device exit $rc ($(tail -n 1 "$work/outage-$s.out")); lock $lock; firmware $([ "$fw" = "$old" ] && echo unchanged || echo "changed: $fw"); next update $after; $((SECONDS - start)) s"
done

# ---- a package larger than the device's /tmp ---------------------------------
if [ "$full_disk" = 1 ]; then
    start=$SECONDS old=$(firmware) && package 9.9 $((300 << 20))
    client "$PKG" "$work/full.out" --no-wait
    rc=$? lock=$(lock_state) fw=$(firmware) after=no
    rm -f "$PKG"
    next_update 9.10
    case $? in 0) after=yes ;; 2) after=- ;; esac
    row "a 300 MiB package, /tmp 256 MiB" \
        "$([[ "$rc/$lock/$fw/$after" == "23/STATUS_FREE/$old/"[-y]* ]] && echo pass || echo FAIL)" \
        "update-device exit $rc ($(tail -n 1 "$work/full.out")); lock $lock; firmware $([ "$fw" = "$old" ] && echo unchanged || echo "changed: $fw"); next update $after; $((SECONDS - start)) s"
fi
if [ "$cuts" -gt 0 ]; then
    : >"$work/cuts.tsv"
    IFS=, read -ra phase <<<"$phases"
    p=${#phase[@]} rounds=$(((cuts + ${#phase[@]} - 1) / ${#phase[@]})) start=$SECONDS
    for ((i = 0; i < cuts; i++)); do
        round=$((i / p)) driver=client
        [ $(((i + round) % 2)) = 1 ] && driver=page
        cut_at "$i" "${phase[i % p]}" "$(awk -v r=$round -v n=$rounds 'BEGIN { printf "%.3f", (r + 0.5) / n }')" "$driver"
    done
    n=$cuts
    ok=$(($(count 5 yes) == n && $(count 7 STATUS_FREE) == n && $(count 8 old) + $(count 8 new) == n &&
        $(count 10 yes) == n && $(count 11 yes) == n && $(count 13 no) == 0))
    row "power cut at $n moments ($phases; update-device and the page in turn)" \
        "$( ((ok)) && echo pass || echo FAIL)" \
        "booted $(count 5 yes)/$n (boot $(cut -f6 "$work/cuts.tsv" | median_max)), lock free $(count 7 STATUS_FREE)/$n, whole firmware $(($(count 8 old) + $(count 8 new)))/$n (old $(count 8 old), new $(count 8 new)), saved log earlier $(count 9 earlier), this update's $(count 9 this-success), cut short $(count 9 this-short), truthful page $(count 10 yes)/$n, truthful update-device $(count 11 yes)/$n, next update $(count 13 yes)/$(($(count 13 yes) + $(count 13 no))); $((SECONDS - start)) s"
    ((ok)) || awk -F'\t' '$5 != "yes" || $7 != "STATUS_FREE" || ($8 != "old" && $8 != "new") || $10 != "yes" || $11 != "yes" || $13 == "no"' \
        "$work/cuts.tsv" | sed 's/^/power cut: /' >>"$REL_WORK/failures.txt"
fi

cut -f2- "$REL_WORK/results.tsv" | sed 's/\t/ | /g'
! grep -q $'^device\t[^\t]*\tFAIL' "$REL_WORK/results.tsv"
