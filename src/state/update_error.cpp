#include "state/update_error.h"

#include <unistd.h>

#include "state/error_messages.h"
#include "state/update_status.h"
#include "support/debug_trace.h"
#include "support/device_paths.h"

namespace {
constexpr useconds_t log_removal_delay_us = 1500000;
}  // namespace

update_error& update_error::instance() {
    static update_error error;
    return error;
}

const char* update_error::message(int code) const {
    if (code < 1 || code >= error_code_count) return "";
    return error_messages[code];
}

int update_error::end_update_with_error(int code) {
    update_status& status = update_status::instance();
    status.add_error(message(code));
    debug_trace::instance().close();
    ::sync();
    status.save_file(paths::trace_file);
    status.save_file(paths::log_file);
    ::sync();
    reset();
    return -code;
}

void update_error::reset() {
    ::unlink(paths::trace_file);
    ::unlink(paths::lock_file);
    ::unlink(paths::status_file);
    ::usleep(log_removal_delay_us);
    ::unlink(paths::log_file);
}
