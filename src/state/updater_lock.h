#pragma once

// The update lock: the existence of "/var/log/updater-cgi.lock" (whatever it
// is) marks an update under way. It is taken by the progress request that
// first sees lighttpd receiving a package, and released when the update ends.

// Takes the lock; false when it is held already or cannot be created.
bool updater_lock();
// Removes the lock; the result of unlink (callers ignore it).
int updater_unlock();
// True when something exists at the lock path.
bool updater_is_locked();
