#!/usr/bin/env bash
# ARM stage of scripts/test: cross build for the device (MinSizeRel), the
# whole test suite under qemu-arm, install into a staging image root, the
# armhf Debian package, and the stripped sizes of both link variants.
# Usage: scripts/lib/arm.sh [build dir]   (default build/arm)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
tree=${1:-build/arm}
jobs=$(( $(nproc) < 2 ? $(nproc) : 2 ))

echo "== ARM cross build (arm-linux-gnueabihf, MinSizeRel)"
cmake -S . -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/arm-linux-gnueabihf.cmake" >/dev/null
cmake --build "$tree" -j "$jobs"

echo "== ARM tests under qemu-arm"
# qemu-user runs every test program a few times slower than natively; the
# timeout only stops a hung emulator from eating the CI budget. The browser
# test is left to the native build and the emulated device: it tests the
# page, and the ARM program's answers to it are the race rows' here.
ctest --test-dir "$tree" --output-on-failure -j "$jobs" --timeout 300 -E '^e2e_browser$'

scripts/lib/package.sh "$tree"

echo "== ARM program sizes (stripped)"
for variant in updater updater-static cgi-header; do
    size_file=$tree/stripped/$variant.size
    [ -f "$size_file" ] || continue
    bytes=$(cat "$size_file")
    awk -v n="$variant" -v b="$bytes" 'BEGIN { printf "  %-16s %8d bytes  %6.1f KiB\n", n, b, b / 1024 }'
done
