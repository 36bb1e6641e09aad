#!/bin/sh
# /usr/local/sbin/preupdate.sh: records, then takes as long as the test asks.
. /run/fakes/record.sh
record preupdate.sh "$@"
sleep "$(setting preupdate-delay 0)"
exit 0
