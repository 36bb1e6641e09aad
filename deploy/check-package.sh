#!/usr/bin/env bash
# check-package.sh <cpack> <build tree> <architecture>
# Builds the tree's Debian package into a scratch directory and checks what a
# device image needs: the architecture field, the program at its CGI path, an
# executable of the right machine, stripped, and nothing outside the layout.
set -euo pipefail
cpack=$1 tree=$2 arch=$3
scratch=$tree/deploy/package-check
rm -rf "$scratch"
mkdir -p "$scratch"
"$cpack" --config "$tree/CPackConfig.cmake" -B "$scratch" >"$scratch/cpack.log" 2>&1 ||
    { cat "$scratch/cpack.log"; exit 1; }
debs=("$scratch"/*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || { echo "expected one .deb in $scratch"; exit 1; }
deb=${debs[0]}
fail() { echo "FAIL: $*"; exit 1; }

got=$(dpkg-deb -f "$deb" Architecture)
[ "$got" = "$arch" ] || fail "Architecture is '$got', expected '$arch'"
[ "$(dpkg-deb -f "$deb" Package)" = updater ] || fail "Package field"

listing=$(dpkg-deb -c "$deb")
echo "$listing"
program=$(awk '$6 == "./www/cgi-bin/updater"' <<<"$listing")
[ -n "$program" ] || fail "no ./www/cgi-bin/updater"
[[ $(awk '{print $1}' <<<"$program") == -rwxr-xr-x ]] || fail "program not executable: $program"

# Every file lies inside the device layout.
while read -r perms _ _ _ _ path _; do
    [[ $perms == d* ]] && continue
    case $path in
        ./www/cgi-bin/updater | ./usr/lib/updater/cgi-header | ./etc/lighttpd/conf.d/updater.conf | ./www/update/*) ;;
        *) fail "unexpected file $path" ;;
    esac
done <<<"$listing"

dpkg-deb -x "$deb" "$scratch/root"
case $arch in
    armhf) want="ARM" ;;
    amd64) want="Advanced Micro Devices X86-64" ;;
    *) want="" ;;
esac
# Every program in the package is for the package's machine, and stripped.
while IFS= read -r -d '' file; do
    header=$(readelf -h "$file" 2>/dev/null) || continue  # not ELF
    [ -z "$want" ] || grep -q "Machine: *$want\$" <<<"$header" || fail "${file#"$scratch"/root} is not for $arch"
    if readelf -S "$file" | grep -q '\.symtab'; then
        fail "${file#"$scratch"/root} is not stripped"
    fi
    echo "checked program ${file#"$scratch"/root}"
done < <(find "$scratch/root" -type f -perm -u+x -print0)
echo "package $(basename "$deb"): ok"
