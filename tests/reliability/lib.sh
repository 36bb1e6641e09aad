# Sourced by the reliability runs: device roots, one CGI request run directly
# inside a root (exit status, peak memory, every shell command it started),
# multipart bodies, parallel repeats and the result rows.
#
# Needs UPDATER_BIN (the built program) and REL_WORK (a scratch directory).
# Results go to $REL_WORK/results.tsv: area, case, verdict, figures.

REL_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
SRC_DIR=$(cd "$REL_DIR/../.." && pwd)
RIG=$SRC_DIR/tests/rig/device-root
REL_RESULTS=$REL_WORK/results.tsv
# How many repeats run at once; most of their time is spent waiting.
REL_PARALLEL=${REL_PARALLEL:-4}

# The shell commands the program may start, byte for byte; anything else
# that reaches /bin/sh -c is a foreign command.
FIXED_COMMANDS=(
    "sudo /usr/local/sbin/preupdate.sh"
    "/sbin/uci get security.update.enabled > /var/tmp/uci_output"
    "/etc/init.d/application stop"
    "/usr/local/sbin/updater -f /tmp/updater-cgi-temp.pkg"
    "sudo /usr/local/sbin/updater -f /tmp/updater-cgi-temp.pkg"
    "sudo /etc/init.d/application stop"
    "/bin/cp -f /var/log/updater-cgi.log /tolven/local/"
    "/bin/cp -f /var/log/updater-cgi.debug /tolven/local/"
    " /sbin/reboot"
    "sudo /sbin/reboot"
)

row() {  # area case verdict figures
    printf '%s\t%s\t%s\t%s\n' "$1" "$2" "$3" "$4" >>"$REL_RESULTS"
}

# A fresh device root with updates enabled and instant fakes.
new_root() {  # dir
    rm -rf "$1"
    mkdir -p "$1"/{fake,var-log,tmp,var-tmp,tolven-local}
    chmod 1777 "$1/tmp" "$1/var-tmp"
    echo true >"$1/fake/uci-value"
}

# Runs the program once for one CGI request inside ROOT, killed after the
# seconds given. Standard input is the caller's; the answer goes to ROOT/out.
# Leaves in ROOT/fake: rusage ("exit-status max-rss-KiB" of the program and
# its children) and exec.trace (every execve of the request). Returns the
# exit status (137 when the time ran out).
#   run_request ROOT SECONDS [rig options...] -- [NAME=VALUE...]
run_request() {
    local root=$1 seconds=$2
    shift 2
    local rig=() envs=()
    while [ $# -gt 0 ] && [ "$1" != -- ]; do rig+=("$1"); shift; done
    shift
    local e
    for e in "$@"; do envs+=(--env "$e"); done
    rm -f "$root/fake/rusage" "$root/fake/exec.trace"
    timeout -s KILL "$seconds" "$RIG" --root "$root" "${rig[@]}" "${envs[@]}" \
        --bind-ro "$(dirname "$UPDATER_BIN")" -- \
        strace -f -qq --seccomp-bpf -e trace=execve -e signal=none -s 8192 \
        -o /run/fake/exec.trace \
        /usr/bin/time -f '%x %M' -o /run/fake/rusage "$UPDATER_BIN" >"$root/out" 2>"$root/err"
}

# Peak memory of the last request, KiB (0 when unknown). GNU time writes a
# line about a non-zero status before its format.
max_rss() {
    local rss
    rss=$(tail -n 1 "$1/fake/rusage" 2>/dev/null | cut -d' ' -f2)
    echo "${rss:-0}"
}

# The shell commands of the last request that are not fixed ones, one a line.
foreign_commands() {  # root
    local line command fixed ok
    [ -f "$1/fake/exec.trace" ] || return 0
    while IFS= read -r line; do
        command=${line#*\"sh\", \"-c\", \"}
        command=${command%%\"\]*}
        ok=0
        for fixed in "${FIXED_COMMANDS[@]}"; do
            [ "$command" == "$fixed" ] && ok=1 && break
        done
        [ "$ok" = 1 ] || printf '%s\n' "$command"
    done < <(grep 'execve("/bin/sh", \["sh", "-c", ' "$1/fake/exec.trace")
    # Nothing but the program itself, the shells of its commands and what
    # the fakes run may be started; a marker file would show an injection.
    [ -e "$1/fake/pwned" ] && echo "marker file created"
    return 0
}

# The multipart form a browser sends for one file field.
form_head() {  # boundary
    printf -- '--%s\r\nContent-Disposition: form-data; name="package"; filename="firmware.pkg"\r\n' "$1"
    printf 'Content-Type: application/octet-stream\r\n\r\n'
}
form_tail() {  # boundary
    printf '\r\n--%s--\r\n' "$1"
}
form_type() { printf 'multipart/form-data; boundary=%s' "$1"; }

# What the installer fake recorded of the package it was handed.
installed_digest() {  # root
    sed -n 's/^updater .* sha256=\([0-9a-f]*\) .*/\1/p' "$1/fake/record" 2>/dev/null | tail -n 1
}

# Runs "FUNC i" for i = 1..N, at most REL_PARALLEL at once. Each repeat
# writes its verdict ("ok" or a reason) to $dir/i.verdict itself.
repeat_parallel() {  # n func
    local n=$1 func=$2 i
    for ((i = 1; i <= n; i++)); do
        "$func" "$i" &
        while [ "$(jobs -rp | wc -l)" -ge "$REL_PARALLEL" ]; do wait -n; done
    done
    wait
}

# "k/n" of the repeats in DIR whose verdict is ok; the first failure reasons
# go to the report file.
count_ok() {  # dir n
    local ok
    ok=$(grep -lx ok "$1"/*.verdict 2>/dev/null | wc -l)
    echo "$ok/$2"
}
first_failures() {  # dir
    grep -vxh ok "$1"/*.verdict 2>/dev/null | sort | uniq -c | head -n 3 | sed 's/^ */  /'
    return 0
}
verdict_of() {  # ok-count/n
    [ "${1%/*}" == "${1#*/}" ] && echo pass || echo FAIL
}

# Median and maximum of numbers, one a line.
median_max() {
    sort -n | awk '{ v[NR] = $1 } END { if (NR == 0) { print "-"; exit }
        printf "median %s, max %s", v[int((NR + 1) / 2)], v[NR] }'
}

now_ms() { echo $(($(date +%s%N) / 1000000)); }
