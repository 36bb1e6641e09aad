#!/usr/bin/env bash
# Lays out the device image of a build tree in <tree>/stage and builds its
# Debian package into <tree>/packages.
# Usage: scripts/lib/package.sh <build dir>
set -euo pipefail
tree=$1
echo "== install and package: $tree"
rm -rf "$tree/stage"
cmake --install "$tree" --prefix "$tree/stage" >/dev/null
(cd "$tree" && cpack --config CPackConfig.cmake >/dev/null)
# The host client's own package, where the tree builds it.
if [ -f "$tree/src/client/CPackConfig.cmake" ]; then
    (cd "$tree" && cpack --config src/client/CPackConfig.cmake >/dev/null)
fi
find "$tree/stage" -type f -printf '  image: /%P\n' | sort
for deb in "$tree"/packages/*.deb; do
    echo "  package: $deb ($(dpkg-deb -f "$deb" Architecture), $(stat -c %s "$deb") bytes)"
done
