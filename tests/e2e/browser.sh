#!/usr/bin/env bash
# Runs the browser test (browser/update_page.test.mjs) against a device root
# whose preupdate script takes 1 s, and plays the device's reboot when the
# update asks for it. Meanwhile it samples the lock file during the page's
# own update: from the moment a poll took the lock until the success entry,
# the lock must never be gone.
set -uo pipefail
. "$(dirname "$0")/lib.sh"
browser_dir=$E2E_DIR/browser
if ! command -v node >/dev/null || [ ! -x /usr/bin/chromium ]; then
    echo "node and /usr/bin/chromium are needed (scripts/install-deps installs them)" >&2
    exit 1
fi
if [ ! -d "$browser_dir/node_modules/playwright-core" ]; then
    echo "playwright-core is missing: run npm ci in $browser_dir (scripts/test does)" >&2
    exit 1
fi
device_init browser
echo 1 >"$ROOT/fake/preupdate-delay"
echo 3 >"$ROOT/fake/installer-delay"
device_start || exit 1
trap device_stop EXIT
pkg=$ROOT/firmware-2.04.pkg
make_package "$pkg" $((16 * 1048576))
artifacts=$E2E_WORK/artifacts
mkdir -p "$artifacts"

BASE=$BASE ROOT=$ROOT PACKAGE=$pkg ARTIFACTS=$artifacts node --test --test-reporter=tap \
    "$browser_dir/update_page.test.mjs" &
browser=$!

: >"$ROOT/lock-samples"
while kill -0 "$browser" 2>/dev/null && ! recorded '^reboot'; do
    if [ -e "$ROOT/own-update" ]; then
        lock=0 done=0
        [ -e "$ROOT/var-log/updater-cgi.lock" ] && lock=1
        log_has 'firmware successfully loaded' && done=1
        echo "$lock $done" >>"$ROOT/lock-samples"
    fi
    sleep 0.02
done
if recorded '^reboot'; then
    sleep 0.5 # the program's last steps after asking for the reboot
    device_reboot 3
fi
wait "$browser"
check "the browser test passes" 0 $?

# 0 0 ... 1 0 ... 1 1: once held, the lock stays until the success entry.
check "the lock was taken during the upload" yes \
    "$(grep -q '^1' "$ROOT/lock-samples" && echo yes || echo no)"
check "the lock held until the success entry" "" \
    "$(awk '$1 == 1 { held = 1 } held && $2 == 0 && $1 == 0 { print NR ": lock gone" }' \
        "$ROOT/lock-samples" | head -n 3)"
check_true "screenshot of the page mid-update" test -s "$artifacts/page-mid-update.png"
rm -f "$pkg"
finish
