#pragma once

#include "exit_status.h"
#include "http_session.h"

// The copy of the last update's log that the device keeps across reboots.
// Its Last-Modified time before the upload tells this update's copy from an
// earlier one.
long long saved_log_time(http_session& session);
// Success only when a copy newer than `before` ends in the success entry.
outcome saved_log_verdict(http_session& session, long long before);
