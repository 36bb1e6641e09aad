# Makes the emulated device's disk image; sourced by scripts/device.
#
# Two layers, each cached under $device_cache by a digest of what makes it:
#   base-KEY/   Debian bookworm armhf from Debian's archive (mmdebstrap, 3 to
#               6 minutes): base.tar, the kernel and initrd, the suites used.
#               KEY: the package list, the initrd settings and this recipe.
#   image-KEY/  the base with the project's armhf package installed by dpkg
#               and the device's pieces (deploy/device, tests/device), as an
#               ext4 file system (rootfs.ext4, under a minute). KEY: the base,
#               the package's contents and every piece.
# Needs root: the image's files belong to root, www-data and others.

device_cache=/var/cache/updater-device
debian_mirror=http://deb.debian.org/debian
debian_security=http://deb.debian.org/debian-security
image_size=1G

# Digest of files and of text given on standard input.
digest_of() {  # files...
    { cat; cat "$@"; } | sha256sum | cut -c1-16
}

# qemu-user runs the image's armhf maintainer scripts through binfmt_misc.
ensure_binfmt() {
    [ -e /proc/sys/fs/binfmt_misc/status ] ||
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    update-binfmts --enable qemu-arm >/dev/null 2>&1 || true
    arch-test armhf >/dev/null || {
        echo "device: this machine cannot run armhf programs through qemu-user" >&2
        return 1
    }
}

debian_sources() {  # with_security: 1 or 0
    echo "deb $debian_mirror bookworm main"
    echo "deb $debian_mirror bookworm-updates main"
    [ "$1" = 1 ] && echo "deb $debian_security bookworm-security main"
    return 0
}

run_mmdebstrap() {  # output.tar with_security
    local packages
    packages=$(grep -vE '^\s*(#|$)' "$root/deploy/device/packages" | paste -sd, -)
    local -a sources
    mapfile -t sources < <(debian_sources "$2")
    mmdebstrap --mode=root --variant=minbase --architectures=armhf --include="$packages" \
        --essential-hook='mkdir -p "$1/etc/initramfs-tools/conf.d" "$1/usr/share/initramfs-tools/modules.d"' \
        --essential-hook="upload $root/deploy/device/initramfs.conf /etc/initramfs-tools/conf.d/updater-device" \
        --essential-hook="upload $root/deploy/device/initramfs-modules /usr/share/initramfs-tools/modules.d/updater-device" \
        bookworm "$1" "${sources[@]}"
}

# Debian's security archive has once served an armhf index that did not
# match its signature: try twice, then build from bookworm and its updates.
make_base() {  # dir
    local dir=$1 tmp=$1.tmp
    rm -rf "$tmp"
    mkdir -p "$tmp"
    local with_security=1 attempt
    for attempt in 1 2 3; do
        [ "$attempt" = 3 ] && with_security=0 &&
            echo "device: bookworm-security failed twice; building without it" >&2
        run_mmdebstrap "$tmp/base.tar" "$with_security" >>"$tmp/mmdebstrap.log" 2>&1 && break
        tail -n 5 "$tmp/mmdebstrap.log" >&2
        [ "$attempt" = 3 ] && return 1
    done
    debian_sources "$with_security" | awk '{ print $3 }' >"$tmp/suites"
    tar -xf "$tmp/base.tar" -C "$tmp" --wildcards './boot/vmlinuz-*' './boot/initrd.img-*'
    mv "$tmp"/boot/vmlinuz-* "$tmp/vmlinuz"
    mv "$tmp"/boot/initrd.img-* "$tmp/initrd.img"
    rmdir "$tmp/boot"
    mv "$tmp" "$dir"
}

base_key() {
    declare -f run_mmdebstrap make_base debian_sources |
        digest_of "$root/deploy/device/packages" "$root/deploy/device/initramfs.conf" \
            "$root/deploy/device/initramfs-modules"
}

# Prints the base layer's folder, making it if it is not cached.
device_base() {
    local dir
    dir=$device_cache/base-$(base_key)
    if [ ! -f "$dir/base.tar" ]; then
        ensure_binfmt
        echo "device: making the Debian base (mmdebstrap, 3 to 6 minutes)" >&2
        local start=$SECONDS
        make_base "$dir"
        echo "device: base made in $((SECONDS - start)) s ($(paste -sd' ' "$dir/suites"))" >&2
    fi
    echo "$dir"
}

# A digest of what a Debian package installs and declares, whatever the
# time stamps of the build that made it.
package_digest() {  # deb
    local files
    files=$(mktemp -d)
    dpkg-deb -x "$1" "$files"
    {
        dpkg-deb -f "$1"
        (cd "$files" && find . -type f -exec sha256sum {} + | sort -k2)
        (cd "$files" && find . -printf '%M %u %g %p %l\n' | sort -k4)
    } | sha256sum
    rm -rf "$files"
}

# The device's own pieces (deploy/device) and the stand-ins for its tools
# (tests/device), where the device has them.
device_files=(
    "deploy/device/lighttpd.conf:/etc/lighttpd/lighttpd.conf:644"
    "deploy/device/fstab:/etc/fstab:644"
    "deploy/device/sudoers:/etc/sudoers.d/updater:440"
    "deploy/device/tmpfiles.conf:/etc/tmpfiles.d/updater.conf:644"
    "deploy/device/clear-dead-server:/usr/local/sbin/clear-dead-server:755"
    "deploy/device/lighttpd-restart.conf:/etc/systemd/system/lighttpd.service.d/restart.conf:644"
    "deploy/device/network:/etc/systemd/network/20-wired.network:644"
    "deploy/device/device-certificate:/usr/local/sbin/device-certificate:755"
    "deploy/device/device-certificate.service:/etc/systemd/system/device-certificate.service:644"
    "deploy/device/nftables.conf:/etc/nftables.conf:755"
    "tests/device/uci:/sbin/uci:755"
    "tests/device/preupdate.sh:/usr/local/sbin/preupdate.sh:755"
    "tests/device/application:/etc/init.d/application:755"
    "tests/device/installer:/usr/local/sbin/updater:755"
)

install_device_files() {  # image root
    local entry source target mode
    for entry in "${device_files[@]}"; do
        IFS=: read -r source target mode <<<"$entry"
        install -D -m "$mode" "$root/$source" "$1$target"
    done
    # sudo looks its host's name up at every command: /etc/hosts answers.
    echo device >"$1/etc/hostname"
    printf '127.0.0.1\tlocalhost\n127.0.1.1\tdevice\n' >"$1/etc/hosts"
    # Updates are enabled; firmware 1.0 is installed in slot a, the active
    # one (tests/device/installer), and the device's pages show it: its
    # version, and the whole slot for a check of its digest.
    mkdir -p "$1/etc/device" "$1/tolven/local/firmware/a"
    echo true >"$1/etc/device/security.update.enabled"
    local slot=$1/tolven/local/firmware/a
    head -c 65536 /dev/urandom >"$slot/payload"
    printf 'version=1.0\nsha256=%s\n' "$(sha256sum <"$slot/payload" | cut -d' ' -f1)" >"$slot/manifest"
    echo 1.0 >"$slot/version"
    ln -s a "$1/tolven/local/firmware/current"
}

# The one user of the update page, made up with the image ("user:password"
# in the image's folder), in lighttpd's htdigest file: realm "updater",
# readable by lighttpd's user and nobody else.
provision_user() {  # image-root credentials-file
    local user password
    user=engineer-$(od -An -N2 -tx2 /dev/urandom | tr -d ' ')
    password=$(head -c 12 /dev/urandom | base64 | tr '+/' '-_')
    echo "$user:$password" >"$2"
    chmod 600 "$2"
    local file=$1/etc/lighttpd/updater.htdigest
    echo "$user:updater:$(echo -n "$user:updater:$password" | md5sum | cut -d' ' -f1)" >"$file"
    chmod 640 "$file"
    chroot "$1" chgrp www-data /etc/lighttpd/updater.htdigest
}

make_image() {  # dir base-dir deb [overlay]
    local dir=$1 base=$2 deb=$3 overlay=${4:-} tmp=$1.tmp
    rm -rf "$tmp"
    mkdir -p "$tmp/root"
    local r=$tmp/root
    tar -xpf "$base/base.tar" -C "$r" --numeric-owner
    install_device_files "$r"
    # The project's package exactly as cpack made it, installed as on any
    # Debian system.
    cp "$deb" "$r/tmp/updater.deb"
    chroot "$r" dpkg -i /tmp/updater.deb >"$tmp/dpkg.log"
    rm "$r/tmp/updater.deb"
    chroot "$r" visudo -qcf /etc/sudoers.d/updater
    ln -s /tolven/local/firmware/current/version "$r/www/version.txt"
    ln -s /tolven/local/firmware/current "$r/www/firmware"
    [ -z "$overlay" ] || cp -R --no-preserve=ownership "$overlay/." "$r/"
    chroot "$r" systemctl -q enable systemd-networkd application lighttpd device-certificate nftables \
        2>>"$tmp/dpkg.log"
    # Nobody logs in (the serial console only shows the kernel's start), and
    # the root file system is checked at boot: no gettys, no e2scrub.
    chroot "$r" systemctl -q mask getty.target
    chroot "$r" systemctl -q disable e2scrub_reap.service
    provision_user "$r" "$tmp/credentials"
    mkfs.ext4 -q -L device -d "$r" "$tmp/rootfs.ext4" "$image_size" >/dev/null
    rm -rf "$r"
    cp "$base/vmlinuz" "$base/initrd.img" "$base/suites" "$tmp/"
    mv "$tmp" "$dir"
}

image_key() {  # base-dir deb [overlay]
    local entry sources=()
    for entry in "${device_files[@]}"; do sources+=("$root/${entry%%:*}"); done
    {
        echo "$1"
        package_digest "$2"
        declare -f install_device_files provision_user make_image
        [ -z "${3:-}" ] || (cd "$3" && find . -type f -exec sha256sum {} + | sort -k2)
    } | digest_of "${sources[@]}"
}

# Prints the image's folder, making it (and the base) if not cached. Keeps
# the three newest images and bases. The overlay's files are copied over the
# image after the package (scripts/bench --device adds its baseline CGI).
device_image() {  # deb [overlay]
    local base dir lock
    mkdir -p "$device_cache"
    # One maker at a time: a second run waits, then finds the layers made.
    exec {lock}>"$device_cache/lock"
    flock "$lock"
    base=$(device_base)
    dir=$device_cache/image-$(image_key "$base" "$1" "${2:-}")
    if [ ! -f "$dir/rootfs.ext4" ]; then
        ensure_binfmt
        echo "device: making the image with $(basename "$1")" >&2
        local start=$SECONDS
        make_image "$dir" "$base" "$1" "${2:-}"
        echo "device: image made in $((SECONDS - start)) s" >&2
    fi
    touch "$dir" "$base"
    local kind
    for kind in image base; do
        ls -dt "$device_cache/$kind"-* 2>/dev/null | grep -v '\.tmp$' | tail -n +4 | xargs -r rm -rf
    done
    exec {lock}>&-
    echo "$dir"
}
