#!/usr/bin/env bash
# Whole updates through the real lighttpd of the end-to-end rig, each in its
# own device root, each with 8 clients polling progress and lock state from
# before the POST until it has answered.
#   load.sh UPDATES [PACKAGE_MIB]
# Needs CGI_HEADER_BIN besides UPDATER_BIN and REL_WORK.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
updates=${1:-50}
package_mib=${2:-8}
work=$REL_WORK/load
rm -rf "$work"
mkdir -p "$work"
real_updater=$UPDATER_BIN
export E2E_WORK=$work
. "$SRC_DIR/tests/e2e/lib.sh"
POLLERS=8

# Each request's exit status, which lighttpd does not pass on: the program
# runs under a shell that appends "method query status" to fake/exits.
write_wrapper() {  # root
    cp "$real_updater" "$1/fake/updater.bin"
    cat >"$1/fake/wrapper" <<'EOF'
#!/bin/sh
/run/fake/updater.bin
s=$?
echo "${REQUEST_METHOD-} ${QUERY_STRING-unset} $s" >>/run/fake/exits
exit $s
EOF
    chmod +x "$1/fake/wrapper"
}

poller() {  # root file
    local urls=() k
    for k in 1 2 3 4; do urls+=(-o /dev/null "$CGI?request=1"); done
    while [ ! -e "$1/stop-polls" ]; do
        curl -s --max-time 20 -w '%{http_code}\n' "${urls[@]}" >>"$2"
        # The lock state as "STATUS_... code", with the time it was answered.
        curl -s --max-time 20 -w " %{http_code} $(date +%s.%N)\n" "$CGI?status=1" >>"$(dirname "$2")/states.${2##*.}"
    done
}

one_update() {  # i
    local i=$1 v=ok
    device_init "u$i" # sets ROOT
    local dir=$ROOT
    write_wrapper "$dir"
    [ -n "${PREUPDATE_DELAY:-}" ] && echo "$PREUPDATE_DELAY" >"$dir/fake/preupdate-delay"
    # The 16 MiB/s of the 64 MiB end-to-end test, slowed to make the upload
    # last about two seconds whatever the package size.
    local pkg=$dir/package.bin rate=$((package_mib * 512))K
    make_package "$pkg" $((package_mib << 20))
    local digest
    digest=$(sha256sum <"$pkg" | cut -d' ' -f1)
    if ! UPDATER_BIN=$dir/fake/wrapper device_start >/dev/null 2>&1; then
        echo "lighttpd did not start" >"$dir.verdict"
        return
    fi
    progress >/dev/null # the page's first poll starts the log
    local pids=() k
    for ((k = 1; k <= POLLERS; k++)); do
        poller "$dir" "$dir/polls.$k" &
        pids+=($!)
    done
    local start end code
    start=$(now_ms)
    code=$(curl -sS --max-time 180 --limit-rate "$rate" -o "$dir/post.body" -w '%{http_code}' \
        -F "package=@$pkg;filename=firmware.pkg" "$CGI")
    end=$(now_ms)
    touch "$dir/stop-polls"
    wait "${pids[@]}"
    device_stop

    [ "$code" = 200 ] || v="POST answered $code"
    [ "$(installed_digest "$dir")" = "$digest" ] && echo 1 >"$dir.exact" || v="package not byte-exact"
    [ -e "$dir/var-log/updater-cgi.lock" ] && echo 1 >"$dir.lock" && v="lock left"
    local left
    left=$(cd "$dir" && ls -d tmp/updater-cgi-temp.pkg var-tmp/uci_output \
        var-tmp/lighttpd-upload-* 2>/dev/null)
    [ -z "$left" ] || { echo "$left" >"$dir.left"; v="left: $(echo $left)"; }
    awk '$1 == "POST" { print $NF }' "$dir/fake/exits" >"$dir.post-exit"
    awk '$1 == "GET" { print $NF }' "$dir/fake/exits" >"$dir.poll-exit"
    cat "$dir"/polls.[0-9]* >"$dir.codes"
    [ "$(cat "$dir.post-exit")" = 0 ] || v="POST exit $(cat "$dir.post-exit")"
    # From the first STATUS_BUSY until the update's own unlock, about 0.1 s
    # before the POST answers, every lock-state answer must be busy.
    cat "$dir"/states.* | awk -v end="$end" '
        $1 == "STATUS_BUSY" && (first == "" || $3 < first) { first = $3 }
        { t[NR] = $3; w[NR] = $1 }
        END { n = 0; for (i in t) if (first != "" && t[i] > first && t[i] < end / 1000 - 1 &&
                                      w[i] != "STATUS_BUSY") n++
              print n }' >"$dir.free-while-busy"
    # Not a failure: a lock-state poll from another client inside the
    # start-of-update window frees the lock, as the program defines (the
    # update page never polls the lock state there). Counted and reported.
    [ -n "$(grep -l STATUS_BUSY "$dir"/states.*)" ] || v="lock never seen taken"
    echo $((end - start)) >"$dir.ms"
    echo "$v" >"$dir.verdict"
}

repeat_parallel "$updates" one_update

exact=$(cat "$work"/*.exact 2>/dev/null | wc -l)
locks=$(cat "$work"/*.lock 2>/dev/null | wc -l)
left=$(cat "$work"/*.left 2>/dev/null | wc -l)
tally=$(count_ok "$work" "$updates")
histogram() { sort -n | uniq -c | awk '{ printf "%s%s x%s", sep, $2, $1; sep = ", " }'; }
post_exits=$(cat "$work"/*.post-exit | histogram)
poll_exits=$(cat "$work"/*.poll-exit | histogram)
codes=$(cat "$work"/*.codes "$work"/*/states.* | awk '{ print $1 == "STATUS_FREE" || $1 == "STATUS_BUSY" ? $2 : $1 }' | histogram)
free_during=$(cat "$work"/*.free-while-busy | awk '{ n += $1 } END { print n + 0 }')
polls=$(cat "$work"/*.codes "$work"/*/states.* | wc -l)
first_failures "$work" | sed 's|^|load: |' >>"$REL_WORK/failures.txt"

verdict=pass
[ "$exact" = "$updates" ] && [ "$locks" = 0 ] && [ "$left" = 0 ] && [ "$tally" = "$updates/$updates" ] ||
    verdict=FAIL
row load "$updates whole updates of $package_mib MiB, $POLLERS pollers each" "$verdict" \
    "byte-exact $exact/$updates; locks left $locks; state files left $left; POST exits: $post_exits"
poll_verdict=pass
[ "$codes" = "200 x$polls" ] || poll_verdict=FAIL
row load "polls during the updates" "$poll_verdict" \
    "$polls requests, HTTP $codes; exits $poll_exits; STATUS_FREE while updating (start-of-update window, see README): $free_during"
row load "time per update (POST to answer)" "-" "$(cat "$work"/*.ms | median_max) ms"
exit 0
