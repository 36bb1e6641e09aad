# Sourced by every fake. Appends one line to the record shared with the test:
# "record" holds the bare call, "record-detail" the same prefixed with the uid.
PATH=/usr/bin:/bin
export PATH
fake_dir=/run/fake
record() {
    printf '%s\n' "$*" >>"$fake_dir/record"
    printf 'uid=%s %s\n' "$(id -u)" "$*" >>"$fake_dir/record-detail"
}
# The installer's runs and the reboots, in order, in "timeline".
mark() { printf '%s\n' "$*" >>"$fake_dir/timeline"; }
# Prints the content of a setting file, or the default when it is absent.
setting() {
    if [ -f "$fake_dir/$1" ]; then cat "$fake_dir/$1"; else printf '%s' "$2"; fi
}
# Waits while the test holds the fake (DIR/fake/NAME-hold), at most 2 min.
hold() {
    i=0
    while [ -e "$fake_dir/$1-hold" ] && [ $((i += 1)) -le 2400 ]; do sleep 0.05; done
}
