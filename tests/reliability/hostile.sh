#!/usr/bin/env bash
# Hostile requests, each run once in a fresh device root under strace and
# GNU time: the exit status must be the one expected, only the fixed shell
# commands may run, no injected command may leave its marker, memory stays
# under REL_RSS_LIMIT_KIB, and accepted packages arrive byte-exact.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
work=$REL_WORK/hostile
rm -rf "$work"
mkdir -p "$work"
rss_limit=${REL_RSS_LIMIT_KIB:-16384}

B=hostile-boundary
INJECT='$(touch /run/fake/pwned)`touch /run/fake/pwned`;touch /run/fake/pwned|touch /run/fake/pwned&&touch /run/fake/pwned'
post_env() { echo "REQUEST_METHOD=POST"; echo "CONTENT_LENGTH=4096"; echo "CONTENT_TYPE=$(form_type "$1")"; }

# Each case: name, expected exit status, and a function that writes the body
# to standard output and the environment, one NAME=VALUE a line, to $env_file.
# A case whose package is installed writes it to $pkg_file as well.
CASES=()
add_case() { CASES+=("$1|$2|$3"); }

body_inject_headers() {
    post_env $B >"$env_file"
    head -c 100000 /dev/urandom >"$pkg_file"
    printf -- "--%s\r\nContent-Disposition: form-data; name=\"x%s\"\r\n\r\n%s\r\n" $B "$INJECT" "$INJECT"
    printf -- "--%s\r\nContent-Disposition: form-data; name=\"%s\"; filename=\"%s\"\r\n" $B "$INJECT" "$INJECT"
    printf 'Content-Type: %s\r\n\r\n' "$INJECT"
    cat "$pkg_file"
    printf '%s' "$INJECT"
    printf '%s' "$INJECT" >>"$pkg_file"
    form_tail $B
}
add_case "shell metacharacters in form headers and content" 0 body_inject_headers

body_inject_boundary() {
    local b="x$INJECT"
    post_env "$b" >"$env_file"
    head -c 100000 /dev/urandom >"$pkg_file"
    form_head "$b"; cat "$pkg_file"; form_tail "$b"
}
add_case "shell metacharacters in the boundary" 0 body_inject_boundary

body_inject_env() {
    {
        echo "REQUEST_METHOD=POST;$INJECT"
        echo "CONTENT_LENGTH=12$INJECT"
        echo "CONTENT_TYPE=$(form_type $B)"
        echo "QUERY_STRING=$INJECT"
        echo "HTTP_USER_AGENT=() { :;}; touch /run/fake/pwned"
        echo "HTTP_COOKIE=a=\$(touch /run/fake/pwned); b=\`touch /run/fake/pwned\`"
    } >"$env_file"
    head -c 100000 /dev/urandom >"$pkg_file"
    form_head $B; cat "$pkg_file"; form_tail $B
}
add_case "shell metacharacters in CGI variables (POST)" 0 body_inject_env

get_case() {  # query
    { echo REQUEST_METHOD=GET; echo "QUERY_STRING=$1"; echo "HTTP_REFERER=$INJECT"; } >"$env_file"
}
body_get_status() { get_case "status=1$INJECT"; }
add_case "shell metacharacters in a lock-state query" 0 body_get_status
body_get_progress() { get_case "$INJECT"; }
add_case "shell metacharacters in a progress query" 0 body_get_progress
body_get_reboot() { get_case "reboot$INJECT"; }
add_case "shell metacharacters in a reboot query" 0 body_get_reboot
body_get_long() { get_case "request=$(head -c 100000 /dev/zero | tr '\0' 'q')"; }
add_case "100 KB query string" 0 body_get_long

body_long_header() {
    post_env $B >"$env_file"
    printf 'X-Long: '; head -c $((1 << 20)) /dev/zero | tr '\0' 'h'; printf '\r\n'
    form_head $B; printf 'content'; form_tail $B
}
add_case "1 MiB header line before the file part" 253 body_long_header

body_long_disposition() {
    post_env $B >"$env_file"
    head -c 5000 /dev/urandom >"$pkg_file"
    printf -- "--%s\r\nContent-Disposition: form-data; name=\"p\"; filename=\"" $B
    head -c 60000 /dev/zero | tr '\0' 'n'
    printf '"\r\n\r\n'; cat "$pkg_file"; form_tail $B
}
add_case "60 KB Content-Disposition line" 0 body_long_disposition

body_long_content_line() {
    post_env $B >"$env_file"
    head -c $((16 << 20)) /dev/zero | tr '\0' 'c' >"$pkg_file"
    form_head $B; cat "$pkg_file"; form_tail $B
}
add_case "16 MiB content line without LF" 0 body_long_content_line

body_nul() {
    post_env $B >"$env_file"
    { head -c 300000 /dev/zero; printf '\r\n\0\n'; head -c 1000 /dev/urandom; } >"$pkg_file"
    printf '\0\0preamble\0\r\n\0:\0\r\n'
    printf -- "--%s\r\nContent-Disposition\0: form-data; filename=\"\0\"\r\n" $B
    printf -- "Content-Disposition: form-data; name=\"\0\"; filename=\"a\0b\"\r\nX\0: \0\r\n\r\n"
    cat "$pkg_file"; form_tail $B
}
add_case "NUL bytes in preamble, headers and content" 0 body_nul

body_100mib_flat() {
    post_env $B >"$env_file"
    head -c $((100 << 20)) /dev/zero | tr '\0' 'z'
}
add_case "100 MiB body without a newline" 253 body_100mib_flat

body_100mib_content() {
    post_env $B >"$env_file"
    form_head $B; head -c $((100 << 20)) /dev/zero | tr '\0' 'z'
}
add_case "100 MiB content without a newline, no delimiter" 253 body_100mib_content

boundary_case() {  # length [body boundary]
    local b
    b=$(head -c "$1" /dev/zero | tr '\0' 'b')
    post_env "$b" >"$env_file"
    head -c 100000 /dev/urandom >"$pkg_file"
    form_head "${2-$b}"; cat "$pkg_file"; form_tail "${2-$b}"
}
body_boundary_0() { boundary_case 0 B; }
add_case "boundary of 0 bytes" 253 body_boundary_0
body_boundary_1() { boundary_case 1; }
add_case "boundary of 1 byte" 0 body_boundary_1
body_boundary_10000() { boundary_case 10000; }
add_case "boundary of 10,000 bytes" 0 body_boundary_10000
body_boundary_mismatch() { boundary_case 10000 "$(head -c 9999 /dev/zero | tr '\0' b)c"; }
add_case "boundary of 10,000 bytes, body's differs in the last" 253 body_boundary_mismatch

run_case() {  # index (1-based)
    local entry=${CASES[$(($1 - 1))]}
    local name=${entry%%|*} rest=${entry#*|}
    local want=${rest%%|*} body=${rest#*|}
    local root=$work/$1 v=ok rc
    new_root "$root"
    env_file=$root/env pkg_file=$root/package.bin
    "$body" >"$root/body"
    local envs=()
    mapfile -t envs <"$env_file"
    run_request "$root" 120 -- "${envs[@]}" <"$root/body"
    rc=$?
    [ "$rc" = "$want" ] || v="exit $rc, not $want"
    local foreign rss
    foreign=$(foreign_commands "$root")
    [ -z "$foreign" ] || { v="foreign command: $(head -n 1 <<<"$foreign")"; echo 1 >"$root.foreign"; }
    rss=$(max_rss "$root")
    echo "$rss" >"$root.rss"
    [ "$rss" -le "$rss_limit" ] || v="max RSS $rss KiB"
    if [ "$want" = 0 ] && [ -s "$pkg_file" ]; then
        [ "$(installed_digest "$root")" = "$(sha256sum <"$pkg_file" | cut -d' ' -f1)" ] ||
            v="package not byte-exact"
    fi
    rm -f "$root/body"
    echo "$v" >"$root.verdict"
    echo "$name" >"$root.name"
}

repeat_parallel "${#CASES[@]}" run_case
n=${#CASES[@]}
tally=$(count_ok "$work" "$n")
foreign=$(cat "$work"/*.foreign 2>/dev/null | wc -l)
rss=$(cat "$work"/*.rss | median_max)
for ((i = 1; i <= n; i++)); do
    v=$(cat "$work/$i.verdict")
    [ "$v" = ok ] || echo "hostile: $(cat "$work/$i.name"): $v" >>"$REL_WORK/failures.txt"
done
row hostile "$n hostile requests (metacharacters, long lines, NUL, 100 MiB, boundaries)" \
    "$(verdict_of "$tally")" \
    "$tally ended as expected; foreign commands in $foreign; max RSS $rss KiB (limit $rss_limit)"
exit 0
