#!/usr/bin/env bash
# The request-check and reassembly fuzz target for a number of executions,
# split over independent workers, each in its own device root (they would
# share the one package file otherwise). The long run uses the UBSan-only
# build; the corpus it grew is then replayed once under ASan+UBSan.
#   fuzz.sh RUNS WORKERS
# Needs FUZZ_UBSAN_BIN and FUZZ_ASAN_BIN besides REL_WORK.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
runs=${1:-10000000}
workers=${2:-2}
work=$REL_WORK/fuzz
rm -rf "$work"
mkdir -p "$work"
seeds=$SRC_DIR/tests/fuzz/corpus

# Inside a root, /tmp/corpus and /tmp/artifacts are ROOT/tmp/...
fuzz_in_root() {  # root binary options...
    local root=$1 bin=$2
    shift 2
    "$RIG" --root "$root" --bind-ro "$(dirname "$bin")" \
        --env ASAN_OPTIONS=detect_leaks=1 --env UBSAN_OPTIONS=print_stacktrace=1 -- \
        "$bin" -max_len=65536 -print_final_stats=1 -artifact_prefix=/tmp/artifacts/ "$@"
}

start=$(now_ms)
pids=()
for ((k = 1; k <= workers; k++)); do
    root=$work/w$k
    mkdir -p "$root/tmp/corpus" "$root/tmp/artifacts"
    cp "$seeds"/* "$root/tmp/corpus/"
    share=$((runs / workers + (k <= runs % workers ? 1 : 0)))
    fuzz_in_root "$root" "$FUZZ_UBSAN_BIN" -runs="$share" -seed="$k" /tmp/corpus \
        >"$root.log" 2>&1 &
    pids+=($!)
done
statuses=()
for p in "${pids[@]}"; do
    wait "$p"
    statuses+=($?)
done
seconds=$((($(now_ms) - start) / 1000))

executed=$(grep -h '^stat::number_of_executed_units:' "$work"/w*.log | awk '{ n += $2 } END { print n + 0 }')
crashes=$(find "$work" -path '*/artifacts/*' -type f | wc -l)
failed_workers=0
for s in "${statuses[@]}"; do [ "$s" = 0 ] || failed_workers=$((failed_workers + 1)); done
units=$(find "$work"/w*/tmp/corpus -type f | wc -l)

# Every input the workers kept, once, with the address sanitizer.
replay=$work/replay
mkdir -p "$replay/tmp/artifacts" "$replay/tmp/corpus"
dirs=()
for ((k = 1; k <= workers; k++)); do
    cp -r "$work/w$k/tmp/corpus" "$replay/tmp/corpus/w$k"
    dirs+=("/tmp/corpus/w$k")
done
fuzz_in_root "$replay" "$FUZZ_ASAN_BIN" -runs=0 "${dirs[@]}" >"$replay.log" 2>&1
replay_status=$?
replay_crashes=$(find "$replay/tmp/artifacts" -type f | wc -l)

verdict=pass
[ "$crashes" = 0 ] && [ "$failed_workers" = 0 ] && [ "$executed" -ge "$runs" ] || verdict=FAIL
rate=$((executed / (seconds > 0 ? seconds : 1)))
row fuzz "request check + reassembly, UBSan, $workers workers" "$verdict" \
    "$executed executions in ${seconds} s ($rate/s); crashes $crashes; corpus $units inputs"
verdict=pass
[ "$replay_status" = 0 ] && [ "$replay_crashes" = 0 ] || verdict=FAIL
row fuzz "the grown corpus replayed under ASan+UBSan" "$verdict" \
    "$(find "$replay/tmp/corpus" -type f | wc -l) inputs; crashes $replay_crashes"
if [ "$crashes" != 0 ] || [ "$replay_crashes" != 0 ]; then
    find "$work" -path '*/artifacts/*' -type f | sed 's|^|fuzz: artifact |' >>"$REL_WORK/failures.txt"
fi
exit 0
