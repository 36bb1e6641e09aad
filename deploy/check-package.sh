#!/usr/bin/env bash
# check-package.sh <cpack> <build tree> <architecture>
# Builds the tree's Debian package into a scratch directory and checks what a
# device image needs: the architecture field, the program at its CGI path,
# nothing outside the layout, every program for the right machine and stripped.
set -euo pipefail
cpack=$1 tree=$2 arch=$3
scratch=$tree/deploy/package-check
fail() { echo "FAIL: $*"; exit 1; }
rm -rf "$scratch"
"$cpack" --config "$tree/CPackConfig.cmake" -B "$scratch" >"$tree/deploy/cpack.log" 2>&1 ||
    { cat "$tree/deploy/cpack.log"; fail cpack; }
deb=$(echo "$scratch"/*.deb)
[ "$(dpkg-deb -f "$deb" Package Architecture)" = $'Package: updater\nArchitecture: '"$arch" ] ||
    fail "fields: $(dpkg-deb -f "$deb" Package Architecture)"

listing=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $1, $6 }')
grep -qx -- '-rwxr-xr-x ./www/cgi-bin/updater' <<<"$listing" || fail "no program ./www/cgi-bin/updater"
grep -qx -- '-rw-r--r-- ./usr/share/man/man8/updater.8.gz' <<<"$listing" || fail "no manual page updater.8"
layout='\./(www/cgi-bin/updater|usr/lib/updater/cgi-header|etc/lighttpd/conf.d/updater.conf|www/update/.*|usr/share/man/man8/updater.8.gz)'
! grep -vE " $layout\$" <<<"$listing" || fail "files outside the layout (above)"

dpkg-deb -x "$deb" "$scratch/root"
machine=$([ "$arch" = armhf ] && echo ARM || echo 'Advanced Micro Devices X86-64')
find "$scratch/root" -type f -perm -u+x -print0 | while IFS= read -r -d '' file; do
    readelf -h "$file" >/dev/null 2>&1 || continue  # not ELF
    readelf -h "$file" | grep -q "Machine: *$machine\$" || fail "${file#"$scratch"/root} is not for $arch"
    ! readelf -S "$file" | grep -q '\.symtab' || fail "${file#"$scratch"/root} is not stripped"
    echo "checked program ${file#"$scratch"/root}"
done
echo "package $(basename "$deb"): ok"
