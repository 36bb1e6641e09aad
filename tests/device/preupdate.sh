#!/bin/sh
# Stand-in for the device's preparation before an update: it only writes
# what it has so far to the disk, quickly (the update lock's window lasts as
# long as this script).
sync
