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
success          | slow_preupdate booted | play_reboot | --timeout 90 --limit-rate 2M --log /dev/null | 0 | of 8.0 MiB; upload complete: 8.0 MiB in; firmware successfully loaded; the device is back; the device runs 1.0 in slot A; the device runs 2.0 in slot B; 2.0 installed and running
rolled_back      | slow_preupdate booted fallback_boot | play_reboot | --timeout 90 --json | 15 | 2.0 was installed but did not start; the device went back to 1.0
installer_fails  | installer_fails slow_installer first_contact booted | refusal | | 25 | (error 5): installation failed; the package was refused: its signature is not trusted; 1.0 still runs; first contact: recorded
disabled         | disabled pinned refused_before | - |                 | 29 | (error 9): update feature is disabled
too_large        | too_large      | -           |                        | 3  | the package (8.0 MiB) is larger than the device takes (1.0 MiB); nothing was sent
untrusted        | untrusted      | -           |                        | 13 | certificate is not trusted
key_changed      | other_key      | -           |                        | 14 | the device's key has changed: 
busy             | busy           | -           |                        | 7  | device busy
busy_post        | -              | other_post  | --limit-rate 4M        | 7  | another update is running; the package was not installed
wrong_password   | wrong_password | -           |                        | 5  | wrong user or password
cut_upload       | -              | cut_upload  | --limit-rate 4M        | 8  | connection lost during the upload
two_devices      | second_device first_contact terminal | - | --no-wait --parallel 2 | 1  | device error
interrupt_two    | second_device first_contact | interrupt | --limit-rate 1M --parallel 2 | 12 | interrupted during the upload
netrc_json       | netrc_devices first_contact no_status | - | --json --no-wait --parallel 1 --proxy http://127.0.0.1:1 --noproxy 127.0.0.1,localhost | 1 | installation failed
unreachable      | -              | -           | --retry 1 --proxy http://127.0.0.1:1 | 4  | device unreachable; trying again in 1 s
wrong_scheme     | wrong_scheme   | -           |                        | 10 | request failed
interrupt_twice  | hung_server    | interrupt_twice |                    | 12 | asking the device's lock state
late_device      | late_device first_contact | come_up_late | --wait-online 30 --no-wait | 0 | waiting up to 30 s for the device; the next update must wait for it
busy_then_free   | busy           | free_later  | --retry 3 --no-wait    | 0  | device busy: another update is running; nothing was sent; trying again in 1 s
saved_log_refused | slow_preupdate | refuse_saved_log | --timeout 30 | 6 | request refused by the device (HTTP 403)
stuck_installer  | stuck_installer other_fallback | - | --timeout 2      | 11 | log has not moved for 2 s
no_second_post   | slow_installer | power_cut   | --retry 3 --timeout 4  | 11 | no saved log of the last update; the outcome is unknown
no_package       | no_package     | -           |                        | 3  | cannot read the package
refused_early    | refused_early  | -           |                        | 3  | is empty"
IFS='|' read -r _ before during options status expected < <(grep "^$name " <<<"$table")
trim() { xargs <<<"$1"; }
before=$(trim "$before") during=$(trim "$during") status=$(trim "$status") expected=$(trim "$expected")

has_upload_file() { compgen -G "$ROOT/var-tmp/lighttpd-upload-*" >/dev/null; }
log_has() { grep -q -- "$1" "$ROOT/var-log/updater-cgi.log" 2>/dev/null; }
recorded() { grep -q -- "$1" "$ROOT/fake/record" 2>/dev/null; }

device_init "client_$name"
package $((8 << 20))
pkg=$ROOT/pkg
case $before in late_device) ;; *) device_start || exit 1 ;; esac
auth=${AUTH:-} && urls=("${BASE:-}") user=${auth%%:*} password=${auth#*:} trust=(--cacert "${CACERT:-}")
trap 'stop_second; device_stop' EXIT
stop_second() { :; }

# --- before the client, or while it runs -------------------------------------
-() { :; }
# The device status document, written as a boot writes it: version, slot,
# fallback, and the last installation (its version, package digest, result,
# reason), the most the device takes.
status_document() {  # version slot fallback [version sha256 result [reason]] [max]
    local last=null dir=$ROOT/run-updater
    [ -z "${4:-}" ] || last=$(jq -n --arg v "$4" --arg s "$5" --arg r "$6" --arg why "${7:-}" \
        '{time: "2026-11-25T10:46:22Z", version: $v, sha256: $s, result: $r, reason: $why}')
    mkdir -p "$dir" && jq -n --arg v "$1" --arg slot "$2" --argjson f "$3" --argjson last "$last" \
        --argjson max "${8:-201326592}" '{version: $v, slot: $slot, fallback: $f, replaced: null,
        max_package_bytes: $max, last_install: $last}' >"$dir/.device.json" && mv "$dir/.device.json" "$dir/device.json"
}
sha=$(sha256sum <"$ROOT/pkg" | cut -d' ' -f1)
booted() { status_document 1.0 A false; }
fallback_boot() { : >"$ROOT/fake/boot-fallback"; }
# The boot after this package's installation: the new slot, or the old one again.
new_boot() {
    if [ -e "$ROOT/fake/boot-fallback" ]; then status_document 1.0 A true 2.0 "$sha" installed
    else status_document 2.0 B false 2.0 "$sha" installed; fi
}
# The installer keeps its reason for the page while it still runs.
refusal() { wait_for 60 recorded '^updater' && status_document 1.0 A false 1.0 "$sha" refused 'its signature is not trusted'; }
# Earlier installations prove nothing: this package refused before this
# update, another one that fell back.
refused_before() { status_document 1.0 A false 2.0 "$sha" refused 'it does not fit'; }
other_fallback() { status_document 1.0 A true 2.0 "${sha//?/0}" installed; }
no_status() { rm -f "$ROOT/run-updater/device.json" "$second/run-updater/device.json"; }
too_large() { status_document 1.0 A false "" "" "" "" $((1 << 20)); }
installer_fails() { echo 1 >"$ROOT/fake/installer-status"; }
disabled() { echo false >"$ROOT/fake/uci-value"; }
busy() { : >"$ROOT/var-tmp/lighttpd-upload-other" && progress >/dev/null; }
wrong_password() { password=wrong; }
# The server's own scheme swapped: it answers, but not what a client can read.
wrong_scheme() { [[ $BASE == https:* ]] && urls=("${BASE/https:/http:}") || urls=("${BASE/http:/https:}"); }
# lighttpd stopped: connections are taken, requests never answered.
hung_server() {
    kill -STOP "$(cat "$ROOT/server/lighttpd.pid")"
    stop_second() { kill -CONT "$(cat "$ROOT/server/lighttpd.pid")"; }
}
# The first Ctrl-C waits for the request under way (10 s); the second ends it.
interrupt_twice() { sleep 0.5 && kill -INT "$client" && sleep 0.3 && kill -INT "$client"; }
no_package() { pkg=$ROOT/missing.bin; }
# Each refused with one line (and a hint to --help for a usage error) before
# any request: the device's /var/log stays empty. The table's own run: an
# empty package.
refused_early() {
    local bad=$ROOT/bad && mkdir -p "$bad" && : >"$bad/empty.pkg" && pkg=$bad/empty.pkg
    printf '%s/update/   # station 1\n\nftp://%s\n' "$BASE" "${BASE#https://}" >"$bad/devices"
    echo 'machine other.lan login a password b' >"$bad/netrc"
    while IFS='|' read -r want text args; do
        eval "set -- $args"
        UPDATE_DEVICE_PASSWORD=$password "$CLIENT_BIN" "$@" >"$bad/out" 2>&1
        check "$name: $text" "$want yes" "$? $(wc -l <"$bad/out") $(grep -qF -- "$text" "$bad/out" && echo yes)"
    done <<ROWS
2 2|devices line 3: not an http or https URL|--devices $bad/devices $ROOT/pkg
2 2|--user takes a name only|-u $user:$password $BASE $ROOT/pkg
2 2|unknown option --bogus|-u $user --bogus $BASE $ROOT/pkg
2 2|no host in http:///update/|-u $user http:///update/ $ROOT/pkg
2 2|has no entry for 127.0.0.1|--netrc-file $bad/netrc $BASE $ROOT/pkg
3 1|is not a regular file|-u $user $BASE $bad
ROWS
}
slow_preupdate() { echo 1 >"$ROOT/fake/preupdate-delay" && echo 2 >"$ROOT/fake/installer-delay"; }
slow_installer() { echo 3 >"$ROOT/fake/installer-delay"; }
stuck_installer() { echo 8 >"$ROOT/fake/installer-delay"; }  # the client leaves it running
late_device() {  # nothing answers on its port for 2 s
    echo "engineer-late:late-password" >"$ROOT/credentials" && user=engineer-late password=late-password
    PORT=$((20000 + (RANDOM * 32768 + RANDOM) % 12000)) && urls=("https://127.0.0.1:$PORT")
}
come_up_late() { sleep 2 && device_start --port "$PORT"; }
free_later() {  # the other upload ends, its log entries stay: none of them may show
    sleep 1.5 && printf '[001.500:10] ERROR: the other upload<br>' >>"$ROOT/var-log/updater-cgi.log"
    rm "$ROOT"/var-tmp/lighttpd-upload-other && lock_state >/dev/null
}
# The device goes down while it installs and comes back: the update began,
# so the client must not post the package again.
power_cut() { wait_for 60 log_has 'installing package file' && sleep 1 && device_reboot 1; }
interrupt() { wait_for 20 has_upload_file && kill -INT "$client"; }
untrusted() { trust=(); }
# The pin holds where the certificate's names do not (an address given later).
pinned() { device_stop && device_start --bind 127.0.0.2 && urls=("$BASE") trust=(--pin "$PIN"); }
first_contact() { trust=(--known-devices "$ROOT/known"); }
other_key() { echo "${BASE#https://} sha256//$(head -c 32 /dev/urandom | base64)" >"$ROOT/known" && first_contact; }
# Another client's small package, sent while this one's is on its way, is in first.
other_post() {
    wait_for 20 has_upload_file && head -c 1000 /dev/urandom >"$ROOT/other" &&
        page -o /dev/null -F "package=@$ROOT/other;filename=o.pkg" "$CGI" &
}
# The lock must hold to the end: a lock-state request of the client while the
# POST starts (the preupdate.sh second) would have freed it. Polls refused for
# a second while the installer runs must show nothing. The fake reboot only
# records: the device goes down as it asks.
play_reboot() {
    wait_for 60 log_has 'installing package file' && mv "$ROOT/server/updater.htdigest" "$ROOT/users" &&
        sleep 1 && mv "$ROOT/users" "$ROOT/server/updater.htdigest"
    wait_for 60 log_has 'firmware successfully loaded'
    check "$name: the lock held through the update" STATUS_BUSY "$(lock_state)"
    wait_for 60 recorded '^reboot' && new_boot && sleep 0.5 && device_reboot 2
}
# The saved log, copied before the reboot, becomes no file the server sends.
refuse_saved_log() {
    wait_for 60 recorded '^reboot' && rm "$ROOT/tolven-local/updater-cgi.log" &&
        mkfifo "$ROOT/tolven-local/updater-cgi.log" && sleep 0.5 && device_reboot 2
}
cut_upload() {  # a progress poll takes the lock, then the connection goes
    wait_for 20 has_upload_file && progress >/dev/null &&
        cp "$ROOT/var-log/updater-cgi.lock" "$ROOT/lock-before-cut" &&
        ss -K dst 127.0.0.1 dport = ":$PORT" >/dev/null 2>&1
}
second_device() {  # a second device with the same user, from a devices file, whose installer fails
    local first=$ROOT base=$BASE
    device_init "client_${name}_b" && echo "$AUTH" >"${1:-$ROOT/credentials}" && installer_fails
    device_start || exit 1
    printf '# the second device\n%s/update/\n' "$BASE" >"$ROOT/devices"
    urls+=(--devices "$ROOT/devices") second=$ROOT ROOT=$first BASE=$base
    stop_second() { ROOT=$second device_stop; }
}
# The same, with a user of its own, named "localhost" in a netrc file.
netrc_devices() {
    second_device /dev/null
    printf 'machine 127.0.0.1 login %s password %s\nmachine localhost login %s password %s\n' \
        "$user" "$password" "$(cut -d: -f1 "$second/credentials")" "$(cut -d: -f2 "$second/credentials")" >"$ROOT/netrc"
    urls=(--netrc-file "$ROOT/netrc" "$BASE" "$(sed 's/127.0.0.1/localhost/' "$second/server/url")") user=
}

# On a terminal (a pseudo-terminal of script's): the live lines.
terminal() { on_terminal() { exec script -qefc "$(printf '%q ' "$@")" /dev/null </dev/null; }; }
on_terminal() { exec "$@"; }  # in the background: $! is the client

for step in $before; do $step; done
# shellcheck disable=SC2086 # options are words
on_terminal env UPDATE_DEVICE_PASSWORD="$password" "$CLIENT_BIN" ${user:+--user "$user"} "${trust[@]}" $options \
    "${urls[@]}" "$pkg" >"$ROOT/client.out" 2>&1 &
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
        check "$name: each entry shown once" "" "$(grep '^\[' "$ROOT/client.out" | sort | uniq -d)"
        check "$name: an upload line a tenth" "" "$(grep -o '^upload [0-9]*' "$ROOT/client.out" | awk '{ print int($2 / 10) }' | uniq -d)" ;;
    installer_fails)
        check "$name: the first contact recorded the device's key" "${BASE#https://} $PIN" "$(cat "$ROOT/known")" ;;
    busy | wrong_password | untrusted | key_changed | too_large)
        check "$name: nothing was posted" "" "$(grep '^uci' "$ROOT/fake/record")" ;;&
    busy)
        check "$name: the other upload keeps its lock" STATUS_BUSY "$(lock_state)" ;;
    busy_post)
        check "$name: only the other package installed" "1 size=1000" \
            "$(grep -c '^updater' "$ROOT/fake/record") $(grep '^updater' "$ROOT/fake/record" | cut -d' ' -f5)" ;;
    cut_upload)
        check "$name: nothing was installed" "" "$(grep '^updater' "$ROOT/fake/record")"
        check_true "$name: the device was locked when the connection went" test -e "$ROOT/lock-before-cut" ;;
    interrupt_two)
        check "$name: the second device is free too" "" "$(ls "$second/var-log/updater-cgi.lock" 2>/dev/null)" ;;
    netrc_json)
        results() { jq -r "select(.event == \"result\") | $1" "$ROOT/client.out" | sort | xargs; }
        check "$name: each device's own status and error, no document" "0 null null 25 5 null" "$(results '"\(.status) \(.device_error.number) \(.version_after)"')"
        check "$name: the package's digest and size" "$(sha256sum <"$pkg" | cut -d' ' -f1) $((8 << 20))" \
            "$(results '"\(.package.sha256) \(.package.size)"' | xargs -n2 | sort -u)"
        check "$name: the phases' times" "true true" "$(results '.phases | has("upload") and has("sent") and has("final_entry")')"
        check "$name: the installers got it" "$installed$installed" "$(grep -h '^updater' "$ROOT/fake/record" "$second/fake/record" | tr -d '\n')"
        check "$name: one device at a time (--parallel 1)" 2 "$(jq -r .device "$ROOT/client.out" | uniq | wc -l)" ;;
    rolled_back)
        check "$name: the record says what booted" "15 1.0 1.0 A true installed" \
            "$(jq -r 'select(.event == "result") | "\(.status) \(.version_before) \(.version_after) \(.slot) \(.fallback) \(.last_install.result)"' "$ROOT/client.out")" ;;
    disabled)
        check "$name: no verdict of an earlier installation" 0 "$(grep -c refused "$ROOT/client.out")" ;;
    busy_then_free)
        check "$name: only this update's entries" 0 "$(grep -c 'the other upload' "$ROOT/client.out")" ;;
    no_second_post)
        check "$name: one POST only" 1 "$(grep -c '^uci' "$ROOT/fake/record")" ;;
    refused_early)
        check "$name: no request reached the device" "" "$(ls "$ROOT/var-log")" ;;
    two_devices)
        check_true "$name: a table row for each" grep -qE "^${BASE#https://} +success" "$ROOT/client.out"
        check "$name: the second device failed, its time once" 1 "$(grep -cE '^127.* +device error +.*error 5\): installation failed +[0-9.]+ s.?$' "$ROOT/client.out")"
        check_true "$name: a live line each" grep -qE ':[0-9]+  updated \(.*:[0-9]+  FAILED: the device.s update failed \(error 5\)|:[0-9]+  FAILED: the device.s update failed \(error 5\).*:[0-9]+  updated \(' <(tr -d '\n' <"$ROOT/client.out") ;;
esac
if [ "$before" != busy ] && [ "$before" != stuck_installer ] && [ "$name" != busy_post ]; then
    check "$name: no lock left" no "$([ -e "$ROOT/var-log/updater-cgi.lock" ] && echo yes || echo no)"
fi
[ "$failed" -eq 0 ] || cat "$ROOT/client.out"
finish
