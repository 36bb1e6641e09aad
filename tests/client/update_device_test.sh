#!/usr/bin/env bash
# One case of the table below: update-device, signed in, against a real
# lighttpd in a device root: its exit status, a line of its output, and the
# device left as it should be (never locked by the client). Over HTTPS,
# trusting the device's certificate (--cacert) unless a case says otherwise.
set -uo pipefail
. "$(dirname "$0")/../e2e/lib.sh"
name=$1

#  case          | before         | during      | client options         | status | output has (texts split by ';')
table="
success          | slow_preupdate | play_reboot | --timeout 30 --limit-rate 4M | 0 | of 8.0 MiB; the device is back
installer_fails  | installer_fails first_contact | - |                 | 25 | (error 5): installation failed; first contact: recorded
disabled         | disabled pinned | -          |                        | 29 | (error 9): update feature is disabled
untrusted        | untrusted      | -           |                        | 13 | certificate is not trusted
key_changed      | other_key      | -           |                        | 14 | the device's key has changed: 
busy             | busy           | -           |                        | 7  | device busy
wrong_password   | wrong_password | -           |                        | 5  | wrong user or password
cut_upload       | -              | cut_upload  | --limit-rate 4M        | 8  | connection lost during the upload
two_devices      | second_device first_contact | -           | --no-wait --parallel 2 | 1  | device error
unreachable      | no_server      | -           |                        | 4  | device unreachable
no_package       | no_package     | -           |                        | 3  | cannot read the package"
IFS='|' read -r _ before during options status expected < <(grep "^$name " <<<"$table")
trim() { xargs <<<"$1"; }
before=$(trim "$before") during=$(trim "$during") status=$(trim "$status") expected=$(trim "$expected")

has_upload_file() { compgen -G "$ROOT/var-tmp/lighttpd-upload-*" >/dev/null; }
log_has() { grep -q -- "$1" "$ROOT/var-log/updater-cgi.log" 2>/dev/null; }
recorded() { grep -q -- "$1" "$ROOT/fake/record" 2>/dev/null; }

device_init "client_$name"
package $((8 << 20))
pkg=$ROOT/pkg
if [ "$before" != no_server ]; then device_start || exit 1; fi
auth=${AUTH:-} && urls=("${BASE:-}") user=${auth%%:*} password=${auth#*:} trust=(--cacert "${CACERT:-}")
trap 'device_stop; stop_second' EXIT
stop_second() { :; }

# --- before the client, or while it runs -------------------------------------
-() { :; }
installer_fails() { echo 1 >"$ROOT/fake/installer-status"; }
disabled() { echo false >"$ROOT/fake/uci-value"; }
busy() { : >"$ROOT/var-tmp/lighttpd-upload-other" && progress >/dev/null; }
wrong_password() { password=wrong; }
no_server() { urls=("http://127.0.0.1:1"); }
no_package() { pkg=$ROOT/missing.bin; }
slow_preupdate() { echo 1 >"$ROOT/fake/preupdate-delay"; }
untrusted() { trust=(); }
pinned() { trust=(--pin "$PIN"); }
first_contact() { trust=(--known-devices "$ROOT/known"); }
other_key() { echo "${BASE#https://} sha256//$(head -c 32 /dev/urandom | base64)" >"$ROOT/known" && first_contact; }
# The lock must hold to the end: a lock-state request of the client while the
# POST starts (the preupdate.sh second) would have freed it. The fake reboot
# only records: the device goes down as it asks.
play_reboot() {
    wait_for 60 log_has 'firmware successfully loaded'
    check "$name: the lock held through the update" STATUS_BUSY "$(lock_state)"
    wait_for 60 recorded '^reboot' && sleep 0.5 && device_reboot 2
}
cut_upload() {  # a progress poll takes the lock, then the connection goes
    wait_for 20 has_upload_file && progress >/dev/null &&
        cp "$ROOT/var-log/updater-cgi.lock" "$ROOT/lock-before-cut" &&
        ss -K dst 127.0.0.1 dport = ":$PORT" >/dev/null 2>&1
}
second_device() {  # a second device with the same user, from a devices file, whose installer fails
    local first=$ROOT base=$BASE
    device_init "client_${name}_b" && echo "$AUTH" >"$ROOT/credentials" && installer_fails
    device_start || exit 1
    printf '# the second device\n%s/update/\n' "$BASE" >"$ROOT/devices"
    urls+=(--devices "$ROOT/devices") second=$ROOT ROOT=$first BASE=$base
    stop_second() { ROOT=$second device_stop; }
}

for step in $before; do $step; done
# shellcheck disable=SC2086 # options are words
UPDATE_DEVICE_PASSWORD=$password "$CLIENT_BIN" ${user:+--user "$user"} "${trust[@]}" $options "${urls[@]}" "$pkg" \
    >"$ROOT/client.out" 2>&1 &
client=$!
$during
wait "$client"
check "$name: exit status" "$status" "$?"
IFS=';' read -ra texts <<<"$expected"
for text in "${texts[@]}"; do
    text=$(trim "$text") && check_true "$name: output has '$text'" grep -qF -- "$text" "$ROOT/client.out"
done

# --- what the device must show afterwards -------------------------------------
case $name in
    success)
        check "$name: the installer got the package" "$installed" "$(grep '^updater' "$ROOT/fake/record")"
        check "$name: each entry shown once" "" "$(grep '^\[' "$ROOT/client.out" | sort | uniq -d)" ;;
    installer_fails)
        check "$name: the first contact recorded the device's key" "${BASE#https://} $PIN" "$(cat "$ROOT/known")" ;;
    busy | wrong_password | untrusted | key_changed)
        check "$name: nothing was posted" "" "$(grep '^uci' "$ROOT/fake/record")" ;;&
    busy)
        check "$name: the other upload keeps its lock" STATUS_BUSY "$(lock_state)" ;;
    cut_upload)
        check "$name: nothing was installed" "" "$(grep '^updater' "$ROOT/fake/record")"
        check_true "$name: the device was locked when the connection went" test -e "$ROOT/lock-before-cut" ;;
    two_devices)
        check_true "$name: a table row for each" grep -qE "^${BASE#https://} +success" "$ROOT/client.out"
        check "$name: the second device failed" 1 "$(grep -cE '^127.* +device error +.*error 5' "$ROOT/client.out")" ;;
esac
if [ "$before" != busy ] && [ "$before" != no_server ]; then
    check "$name: no lock left" no "$([ -e "$ROOT/var-log/updater-cgi.lock" ] && echo yes || echo no)"
fi
[ "$failed" -eq 0 ] || cat "$ROOT/client.out"
finish
