#!/usr/bin/env bash
# The runs of scripts/reliability, one area a call:
#   run.sh fuzz RUNS WORKERS | load UPDATES MIB | faults REPEATS | hostile REPEATS
# Each adds rows "area, case, verdict, figures" to REL_WORK/results.tsv and
# failure reasons to REL_WORK/failures.txt. Needs UPDATER_BIN, CGI_HEADER_BIN,
# FUZZ_UBSAN_BIN, FUZZ_ASAN_BIN and REL_WORK; REL_PARALLEL repeats run at once.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
RIG=$here/../rig/device-root AREA=$1 E2E_WORK=$REL_WORK/$1
. "$here/../e2e/lib.sh"
rm -rf "$E2E_WORK" && mkdir -p "$E2E_WORK"

row() { printf '%s\t%s\t%s\t%s\n' "$AREA" "$@" >>"$REL_WORK/results.tsv"; }
verdict() { (("$@")) && echo pass || echo FAIL; }
median_max() { sort -n | awk '{ v[NR] = $1 } END { printf "median %s, max %s", v[int((NR + 1) / 2)], v[NR] }'; }
tally() { sort -n | uniq -c | awk '{ printf "%s%s x%s", s, $2, $1; s = ", " }'; } # "value xN, ..."
ms() { awk -v s="$1" -v e="$EPOCHREALTIME" 'BEGIN { printf "%d\n", (e - s) * 1000 }'; } # since a time
# Runs the command in fresh roots E2E_WORK/NAME.1..N, REL_PARALLEL at once;
# what it prints are its reasons to fail. Then a row "k/n ok; FIGURES".
repeat() {  # n name case figures command...
    local i ok
    for ((i = 1; i <= $1; i++)); do
        (device_init "$2.$i" && mkdir "$ROOT/var-tmp" && v=$("${@:5}") && echo "${v:-ok}" >"$ROOT.verdict") &
        while [ "$(jobs -rp | wc -l)" -ge "${REL_PARALLEL:-4}" ]; do wait -n; done
    done
    wait
    ok=$(grep -lx ok "$E2E_WORK/$2".*.verdict | wc -l)
    row "$3" "$(verdict "ok == $1")" "$ok/$1 ok${4:+; $(eval "$4")}"
    grep -vxh ok "$E2E_WORK/$2".*.verdict | sort | uniq -c | head -n 3 | sed "s|^|$3: |" >>"$REL_WORK/failures.txt" || true
}

# One CGI request run straight in ROOT: device-root options, "--", variables;
# the body on standard input. Its answer goes to ROOT/out, its status to ROOT/rc.
run() {
    local rig=() e
    while [ "$1" != -- ]; do rig+=("$1") && shift; done
    for e in "${@:2}"; do rig+=(--env "$e"); done
    timeout -s KILL 120 "$RIG" --root "$ROOT" --bind-ro "$(dirname "$UPDATER_BIN")" "${rig[@]}" \
        -- ${WRAP:-} "$UPDATER_BIN" >"$ROOT/out" 2>"$ROOT/err"
    echo $? >"$ROOT/rc"
}
POST=(REQUEST_METHOD=POST CONTENT_LENGTH=4096 "CONTENT_TYPE=multipart/form-data; boundary=B")
vars() { printf '%s\n' "$@" >>"$ROOT/env"; }
post_vars() { vars "${POST[@]:0:2}" "CONTENT_TYPE=multipart/form-data; boundary=${1-B}"; }
part() { printf -- '--%s\r\nContent-Disposition: form-data; name="package"; filename="fw.pkg"\r\n\r\n' "${1:-B}"; }
form() { part "$@" && cat "$ROOT/pkg" && printf '\r\n--%s--\r\n' "${1:-B}"; }
x() { head -c "$1" /dev/zero | tr '\0' "$2"; }  # N times the character
exact() { grep -q "sha256=$(sha256sum <"$ROOT/pkg" | cut -d' ' -f1) " "$ROOT/fake/record" 2>/dev/null; }
# The program behind a shell that notes each exit, served by lighttpd.
serve_counting() {
    cp "$UPDATER_BIN" "$ROOT/fake/updater.bin" && printf '#!/bin/sh\n/run/fake/updater.bin\ns=$?\necho "$REQUEST_METHOD $s" >>/run/fake/exits\nexit $s\n' >"$ROOT/fake/run"
    chmod +x "$ROOT/fake/run" && UPDATER_BIN=$ROOT/fake/run device_start >/dev/null
}

# ---- fuzz: the request check and reassembly, UBSan, split over workers; the
# corpus they grow is then replayed once under ASan+UBSan.
fuzz() {  # binary root options...
    mkdir -p "$2/tmp/artifacts" && "$RIG" --root "$2" --bind-ro "$(dirname "$1")" --env ASAN_OPTIONS=detect_leaks=1 \
        -- "$1" -max_len=65536 -print_final_stats=1 -artifact_prefix=/tmp/artifacts/ "${@:3}" >"$2.log" 2>&1
}
area_fuzz() {  # runs workers
    local k start=$SECONDS failed=0 runs crashes inputs
    for ((k = 1; k <= $2; k++)); do
        mkdir -p "$E2E_WORK/$k/tmp" && cp -r "$here/../fuzz/corpus" "$E2E_WORK/$k/tmp/corpus"
        fuzz "$FUZZ_UBSAN_BIN" "$E2E_WORK/$k" -runs=$(($1 / $2 + (k <= $1 % $2))) -seed="$k" /tmp/corpus &
    done
    for k in $(jobs -p); do wait "$k" || failed=$((failed + 1)); done
    runs=$(awk '/^stat::number_of_executed_units:/ { n += $2 } END { print n + 0 }' "$E2E_WORK"/*.log)
    crashes=$(find "$E2E_WORK"/*/tmp/artifacts -type f | wc -l) inputs=$(find "$E2E_WORK"/*/tmp/corpus -type f | wc -l)
    row "request check + reassembly, UBSan, $2 workers" "$(verdict "failed + crashes == 0 && runs >= $1")" \
        "$runs executions in $((SECONDS - start)) s ($((runs / (SECONDS - start + (SECONDS == start))))/s); crashes $crashes; corpus $inputs inputs"
    for ((k = 1; k <= $2; k++)); do mkdir -p "$E2E_WORK/all/tmp/corpus" && mv "$E2E_WORK/$k/tmp/corpus" "$E2E_WORK/all/tmp/corpus/$k"; done
    fuzz "$FUZZ_ASAN_BIN" "$E2E_WORK/all" -runs=0 $(seq -f /tmp/corpus/%g "$2")
    failed=$? crashes=$(find "$E2E_WORK"/all/tmp/artifacts -type f | wc -l)
    row "the grown corpus replayed under ASan+UBSan" "$(verdict "failed + crashes == 0")" "$inputs inputs; crashes $crashes"
    find "$E2E_WORK" -path '*/artifacts/*' -type f | sed 's|^|fuzz: artifact |' >>"$REL_WORK/failures.txt"
}

# ---- load: whole updates through lighttpd, 8 clients polling progress and
# lock state meanwhile (ROOT/polls.N: "code" or "lock-state code time").
poller() {
    while [ ! -e "$ROOT/stop" ]; do
        page -w '%{http_code}\n' -o /dev/null "$CGI?request=1" -o /dev/null "$CGI?request=1"
        page -w " %{http_code} ${EPOCHREALTIME}\n" "$CGI?status=1"
    done >>"$ROOT/polls.$1" 2>/dev/null
}
one_update() {  # MiB
    serve_counting || { echo "lighttpd did not start"; return; }
    package $(($1 << 20)) && progress >/dev/null
    local k start=$EPOCHREALTIME
    for k in 1 2 3 4 5 6 7 8; do poller $k & done
    (post --limit-rate $(($1 * 512))K) >"$ROOT/code"
    local end=$EPOCHREALTIME && ms "$start" >"$ROOT.ms" && touch "$ROOT/stop" && wait && device_stop
    grep -qx 200 "$ROOT/code" || echo "POST answered $(cat "$ROOT/code")"
    grep -qxF "$installed" "$ROOT/fake/record" && : >"$ROOT.exact" || echo "package not byte-exact"
    ls "$ROOT"/var-log/updater-cgi.lock "$ROOT"/tmp/updater-cgi-temp.pkg "$ROOT"/var-tmp/* 2>/dev/null | sed 's/^/left: /'
    # "Free" answers from the first "busy" until a second before the POST's
    # answer: the start-of-update window (see docs/design.md).
    sort -k3 -n "$ROOT"/polls.* | awk -v end="$end" '$1 == "STATUS_BUSY" { busy = 1 }
        busy && $1 == "STATUS_FREE" && $3 < end - 1 { n++ } END { print n + 0 }' >"$ROOT.free"
    grep -q STATUS_BUSY "$ROOT"/polls.* || echo "lock never seen taken"
}
area_load() {  # updates mib
    repeat "$1" u "$1 whole updates of $2 MiB, 8 pollers each" 'echo "byte-exact $(ls "$E2E_WORK"/*.exact | wc -l)/$1; POST exits: $(awk "/^POST/ { print \$2 }" "$E2E_WORK"/*/fake/exits | tally)"' \
        one_update "$2"
    local codes
    codes=$(cat "$E2E_WORK"/*/polls.* | awk '{ print $(NF > 1 ? 2 : 1) }' | tally)
    row "polls during the updates" "$([[ $codes =~ ^200\ x[0-9]+$ ]] && echo pass || echo FAIL)" "$(cat "$E2E_WORK"/*/polls.* | wc -l) requests, HTTP $codes; exits $(awk '/^GET/ { print $2 }' "$E2E_WORK"/*/fake/exits | tally); STATUS_FREE while updating (start-of-update window, see docs/design.md): $(cat "$E2E_WORK"/*.free | awk "{ n += \$1 } END { print n + 0 }")"
    row "time per update (POST to answer)" - "$(cat "$E2E_WORK"/*.ms | median_max) ms"
}

# ---- faults in mid-update: the POST run straight in the root, after a poll
# took the lock (lighttpd's upload file seen), with the body given, and the
# signal given sent once the package file fills. Reasons to fail: the exit
# status, the lock left or not, the saved log without the entry, the package
# installed or not.
fault() {  # options body signal exit lock-left entry installed
    head -c 300000 /dev/urandom >"$ROOT/pkg" && touch "$ROOT/var-tmp/lighttpd-upload-1"
    run -- REQUEST_METHOD=GET QUERY_STRING=request=1 </dev/null
    rm "$ROOT/var-tmp/lighttpd-upload-1" && [ -e "$ROOT/var-log/updater-cgi.lock" ] || echo "lock not taken"
    local start=$EPOCHREALTIME
    run $1 --pidfile "$ROOT/pid" -- "${POST[@]}" < <(eval "$2") &
    [ "$3" = - ] || { wait_for 10 test -s "$ROOT/tmp/updater-cgi-temp.pkg" && kill "-$3" "$(cat "$ROOT/pid")"; }
    wait && ms "$start" >"$ROOT.ms"
    [ "$(cat "$ROOT/rc")" = "$4" ] || echo "exit $(cat "$ROOT/rc")"
    [ "$([ -e "$ROOT/var-log/updater-cgi.lock" ] && echo yes || echo no)" = "$5" ] || echo "lock left: not $5"
    [ "$6" = - ] || grep -q "$6" "$ROOT/tolven-local/updater-cgi.log" || echo "no '$6' saved"
    [ "$(exact && echo yes || echo no)" = "$7" ] || echo "package installed: not $7"
}
# After a SIGKILL, the reset request (a GET without QUERY_STRING, which only
# the device itself can send) brings the device back to idle, the log saved.
reset() {
    run -- REQUEST_METHOD=GET </dev/null && run -- REQUEST_METHOD=GET QUERY_STRING=status=1 </dev/null
    [ "$(cat "$ROOT/out") $(ls "$ROOT/var-log" | grep -v debug)" = "STATUS_FREE " ] || echo "not idle after the reset"
    grep -q 'receiving package file' "$ROOT/tolven-local/updater-cgi.log" || echo "log not saved by the reset"
}
# With /var/log read-only, every request answers: exit status, answer, variables.
readonly_log() {
    ro() { run --readonly-log -- "${@:3}"; [ "$(cat "$ROOT/rc") $(cat "$ROOT/out")" = "$1 $2" ] || echo "${*:3}: $(cat "$ROOT/rc")"; }
    ro 0 STATUS_FREE REQUEST_METHOD=GET QUERY_STRING=status=1 </dev/null
    for r in "GET QUERY_STRING=request=1" "GET QUERY_STRING=reboot=1" GET HEAD; do ro 0 "" REQUEST_METHOD=$r </dev/null; done
    touch "$ROOT/var-tmp/lighttpd-upload-1" && ro 246 "" REQUEST_METHOD=GET QUERY_STRING=request=1 </dev/null
    rm "$ROOT/var-tmp/lighttpd-upload-1" && head -c 300000 /dev/urandom >"$ROOT/pkg"
    ro 0 "" "${POST[@]}" < <(form) && { exact || echo "package not byte-exact"; }
}
area_faults() {  # repeats
    local took='echo "ended after $(cat "$E2E_WORK/$2".*.ms | median_max) ms"' flow='part; while head -c 262144 /dev/urandom; do sleep 0.05; done'
    repeat "$1" stall "stall in mid-copy: exit 250, lock freed" "$took" fault "" 'part; head -c 300000 /dev/urandom; sleep 8' - 250 no 'ERROR: upload timeout' no
    repeat "$1" term "SIGTERM in mid-copy: exit 0, lock freed" "" fault "" "$flow" TERM 0 no - no
    repeat "$1" kill "SIGKILL in mid-copy, then reset: idle" "" eval "fault '' '$flow' KILL 137 yes - no; reset"
    repeat "$1" full "/tmp full during the copy: error 3, lock freed" "$took" fault "--tmp-size $((2 << 20))" "part; x $((8 << 20)) f" - 253 no 'ERROR: upload aborted' no
    repeat "$1" ro "/var/log read-only: every request answers" 'echo "7 requests each"' readonly_log
    repeat "$1" nop "/tolven/local missing: update completes" "" fault --no-persistent form - 0 no - yes
}

# ---- hostile requests, each in a fresh root under strace and GNU time: the
# exit status expected, only the device's own shell commands, no marker file
# of an injected command, bounded memory, accepted packages byte-exact. A row:
# exit | name | what writes the variables (vars) and the body (standard output).
I='$(touch /run/fake/pwned)`touch /run/fake/pwned`;touch /run/fake/pwned|touch /run/fake/pwned&&touch /run/fake/pwned'
pkg() { head -c "$1" /dev/urandom >"$ROOT/pkg"; }
readarray -t CASES <<'CASES'
0|shell metacharacters in form headers and content|post_vars; pkg 100000; printf %s "$I" >>"$ROOT/pkg"; printf -- '--B\r\nContent-Disposition: form-data; name="x%s"\r\n\r\n%s\r\n' "$I" "$I"; printf -- '--B\r\nContent-Disposition: form-data; name="%s"; filename="%s"\r\nContent-Type: %s\r\n\r\n' "$I" "$I" "$I"; cat "$ROOT/pkg"; printf '\r\n--B--\r\n'
0|shell metacharacters in the boundary|post_vars "x$I"; pkg 100000; form "x$I"
0|shell metacharacters in CGI variables (POST)|vars "REQUEST_METHOD=POST;$I" "CONTENT_LENGTH=12$I" "CONTENT_TYPE=multipart/form-data; boundary=B" "QUERY_STRING=$I" "HTTP_USER_AGENT=() { :;}; touch /run/fake/pwned"; pkg 100000; form
0|shell metacharacters in a lock-state query|vars REQUEST_METHOD=GET "QUERY_STRING=status=1$I" "HTTP_REFERER=$I"
0|shell metacharacters in a progress query|vars REQUEST_METHOD=GET "QUERY_STRING=$I" "HTTP_COOKIE=a=$I"
0|shell metacharacters in a reboot query|vars REQUEST_METHOD=GET "QUERY_STRING=reboot$I"
0|100 KB query string|vars REQUEST_METHOD=GET "QUERY_STRING=request=$(x 100000 q)"
253|1 MiB header line before the file part|post_vars; printf 'X-Long: %s\r\n' "$(x 1048576 h)"; part; printf 'content\r\n--B--\r\n'
0|60 KB Content-Disposition line|post_vars; pkg 5000; printf -- '--B\r\nContent-Disposition: form-data; name="p"; filename="%s"\r\n\r\n' "$(x 60000 n)"; cat "$ROOT/pkg"; printf '\r\n--B--\r\n'
0|16 MiB content line without LF|post_vars; x $((16 << 20)) c >"$ROOT/pkg"; form
0|NUL bytes in preamble, headers and content|post_vars; { x 300000 '\0'; printf '\r\n\0\n'; head -c 1000 /dev/urandom; } >"$ROOT/pkg"; printf -- '\0\0preamble\0\r\n\0:\0\r\n--B\r\nContent-Disposition\0: form-data; filename="\0"\r\nContent-Disposition: form-data; name="\0"; filename="a\0b"\r\nX\0: \0\r\n\r\n'; cat "$ROOT/pkg"; printf '\r\n--B--\r\n'
253|100 MiB body without a newline|post_vars; x $((100 << 20)) z
253|100 MiB content without a newline, no delimiter|post_vars; part; x $((100 << 20)) z
253|boundary of 0 bytes|post_vars ""; pkg 100000; form B
0|boundary of 1 byte|post_vars b; pkg 100000; form b
0|boundary of 10,000 bytes|post_vars "$(x 10000 b)"; pkg 100000; form "$(x 10000 b)"
253|boundary of 10,000 bytes, body's differs in the last|post_vars "$(x 10000 b)"; pkg 100000; form "$(x 9999 b)c"
CASES
# The device's own shell commands; any other that reaches /bin/sh -c is foreign.
FIXED='^((sudo )?(/usr/local/sbin/preupdate\.sh|/etc/init\.d/application stop|/usr/local/sbin/updater -f /tmp/updater-cgi-temp\.pkg|/sbin/reboot)| /sbin/reboot)$
^/sbin/uci get security\.update\.enabled > /var/tmp/uci_output$|^/bin/cp -f /var/log/updater-cgi\.(log|debug) /tolven/local/$'
hostile_one() {
    local want name code env
    IFS='|' read -r want name code <<<"${CASES[${ROOT##*.} - 1]}"
    : >"$ROOT/env" && eval "$code" >"$ROOT/body" && mapfile -t env <"$ROOT/env"
    WRAP="strace -f -qq --seccomp-bpf -e trace=execve -e signal=none -s 8192 -o /run/fake/exec.trace /usr/bin/time -f %M -o /run/fake/rss" \
        run -- "${env[@]}" <"$ROOT/body" && rm "$ROOT/body"
    [ "$(cat "$ROOT/rc")" = "$want" ] || echo "$name: exit $(cat "$ROOT/rc"), not $want"
    sed -n 's/^.*execve("\/bin\/sh", \["sh", "-c", "\(.*\)"\].*$/\1/p' "$ROOT/fake/exec.trace" | grep -vE "$FIXED" | sed "s/^/$name: foreign command /"
    [ ! -e "$ROOT/fake/pwned" ] || echo "$name: foreign command left its marker"
    [ "$(tail -n 1 "$ROOT/fake/rss")" -le "${REL_RSS_LIMIT_KIB:-16384}" ] || echo "$name: max RSS $(tail -n 1 "$ROOT/fake/rss") KiB"
    [ "$want" != 0 ] || [ ! -s "$ROOT/pkg" ] || exact || echo "$name: package not byte-exact"
}
area_hostile() {  # repeats of the requests through lighttpd
    repeat ${#CASES[@]} h "${#CASES[@]} hostile requests (metacharacters, long lines, NUL, 100 MiB, boundaries)" \
        'echo "foreign commands in $(grep -l foreign "$E2E_WORK"/h.*.verdict | wc -l); max RSS $(tail -qn 1 "$E2E_WORK"/h.*/fake/rss | median_max) KiB (limit ${REL_RSS_LIMIT_KIB:-16384})"' hostile_one
    # Through lighttpd: no request without credentials, without the page's
    # header or cross-site reaches the program.
    device_init signin && serve_counting && package 65536
    for ((k = 0; k < $1; k++)); do hostile_requests; done >"$ROOT/answers" && device_stop
    local reached=$(cat "$ROOT/fake/exits" 2>/dev/null | wc -l) wrong=$(awk '$1 != $2' "$ROOT/answers" | wc -l)
    row "unauthenticated, cross-site, same-site and replayed requests through lighttpd" "$(verdict "reached + wrong == 0")" \
        "$(wc -l <"$ROOT/answers") tried, $reached reached the program; HTTP $(cut -d' ' -f2 "$ROOT/answers" | tally); $wrong answered otherwise"
    # Framing: every answer of the page and the program, refusals included,
    # keeps out of another page's frame.
    device_init framing && device_start >/dev/null && local k url headers framable=0 answers=0
    for ((k = 0; k < $1; k++)); do
        for url in "$BASE/update/" "$BASE/update/update.js" "$CGI?status=1" "$CGI?request=1"; do
            for headers in "$(page -D - -o /dev/null "$url")" "$(curl -sS --cacert "$CACERT" -D - -o /dev/null "$url")" \
                "$(curl -sS --cacert "$CACERT" --digest -u "$AUTH" -D - -o /dev/null "$url")"; do
                answers=$((answers + 1))
                grep -qi '^x-frame-options: DENY' <<<"$headers" && grep -qi "frame-ancestors 'none'" <<<"$headers" ||
                    framable=$((framable + 1))
            done
        done
    done
    device_stop
    row "framing: answers of the page and the program (200, 401, 403)" "$(verdict "framable == 0")" \
        "$answers answers, $framable without X-Frame-Options DENY or frame-ancestors 'none'"
    # Connection floods: one host's 2,000 connections against another's
    # signed-in request (network namespaces: root only).
    [ "$(id -u)" = 0 ] || { row "connection floods from a second address" - "not run: needs root"; return; }
    device_init flood && flood_start || { row "connection floods from a second address" FAIL "no device"; return; }
    for ((k = 0; k < $1; k++)); do flood_round; done >"$ROOT/rounds"
    flood_stop
    local quick=$(awk '$2 == "STATUS_FREE" && $3 < 2' "$ROOT/rounds" | wc -l)
    row "connection floods from a second address (2,000 each) against a signed-in request" "$(verdict "quick == $1")" \
        "$quick/$1 answered within 2 s (seconds $(cut -d' ' -f3 "$ROOT/rounds" | median_max)); connections the flooding host held: $(cut -d' ' -f1 "$ROOT/rounds" | tally)"
}

"area_$AREA" "${@:2}"
