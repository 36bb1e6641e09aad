#!/bin/sh
# /usr/local/sbin/preupdate.sh: records, then takes as long as the test asks
# (and while the test holds it, at most 2 min).
. /run/fakes/record.sh
record preupdate.sh "$@"
sleep "$(setting preupdate-delay 0)"
i=0
while [ -e "$fake_dir/preupdate-hold" ] && [ $((i += 1)) -le 2400 ]; do sleep 0.05; done
exit 0
