#!/bin/sh
# /usr/local/sbin/preupdate.sh: records, then takes as long as the test asks
# (and while the test holds it, at most 2 min).
. /run/fakes/record.sh
record preupdate.sh "$@"
sleep "$(setting preupdate-delay 0)"
hold preupdate
exit 0
