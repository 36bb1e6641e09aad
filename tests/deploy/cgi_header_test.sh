#!/usr/bin/env bash
# Checks the CGI header adaptor: exact header bytes, then the program's own
# output with argument count 1, environment and standard input passed through.
# Usage: cgi_header_test.sh ADAPTOR [EMULATOR...]
set -uo pipefail
adaptor=("${@:2}" "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
check() {  # name expected actual
    if [ "$2" == "$3" ]; then
        echo "ok   $1"
    else
        echo "FAIL $1"
        printf '  expected: %q\n  actual:   %q\n' "$2" "$3"
        failed=1
    fi
}
header=$'Content-Type: text/html\r\nCache-Control: no-store\r\n\r\n'
broken=$'Status: 500 Internal Server Error\r\n\r\n'

# Stands in for updater: reports what it was given, then exits with 3.
cat >"$work/prog" <<'STUB'
#!/bin/sh
printf 'argc=%s argv0=%s qs=%s stdin=' "$#" "$0" "$QUERY_STRING"
cat
exit 3
STUB
chmod +x "$work/prog"

printf 'body\0bytes' >"$work/in"
QUERY_STRING='status=1' "${adaptor[@]}" "$work/prog" <"$work/in" >"$work/out"
rc=$?
out=$(od -An -c "$work/out")
exp=$(printf '%sargc=0 argv0=%s qs=status=1 stdin=body\0bytes' "$header" "$work/prog" | od -An -c)
check "header, then the program with argc 1, env and stdin intact" "$exp" "$out"
check "the program's exit status is the adaptor's" 3 "$rc"

# The program's output may lack a line end ("STATUS_FREE"); nothing is added.
printf '#!/bin/sh\nprintf STATUS_FREE\n' >"$work/word" && chmod +x "$work/word"
out=$("${adaptor[@]}" "$work/word" </dev/null | od -An -c)
check "bare word stays bare" "$(printf '%sSTATUS_FREE' "$header" | od -An -c)" "$out"

# A wrong assignment must not pass as an empty 200 page.
out=$("${adaptor[@]}" "$work/missing" </dev/null)
check "missing program: 500" "$broken" "$out"$'\n'
out=$("${adaptor[@]}" "$work/missing" </dev/null >/dev/null; echo $?)
check "missing program: exit 1" 1 "$out"
printf 'x' >"$work/plain"
out=$("${adaptor[@]}" "$work/plain" </dev/null)
check "not executable: 500" "$broken" "$out"$'\n'
out=$("${adaptor[@]}" </dev/null)
check "no argument: 500" "$broken" "$out"$'\n'
out=$("${adaptor[@]}" "$work/prog" extra </dev/null)
check "two arguments: 500" "$broken" "$out"$'\n'
exit $failed
