#include "entry/cgi_dispatch.h"

#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "entry/update_driver.h"
#include "state/update_error.h"
#include "state/update_status.h"
#include "state/updater_lock.h"
#include "support/debug_trace.h"
#include "support/device_paths.h"
#include "support/fd_io.h"
#include "support/file_tools.h"

namespace {

constexpr char status_free[] = "STATUS_FREE";
constexpr char status_busy[] = "STATUS_BUSY";

bool upload_in_progress() {
    return file_tools().find_prefixed(paths::upload_dir, paths::upload_prefix);
}

void answer(std::string_view text) {
    write_all(STDOUT_FILENO, text);
}

void run_shell(const char* command) {
    [[maybe_unused]] int ignored = std::system(command);
}

// Prefix test on the raw value: "GETX" is a GET, "GE" is nothing.
bool method_is(const char* method, std::string_view word) {
    return std::strncmp(method, word.data(), word.size()) == 0;
}

int update_request() {
    debug_trace::instance().write("main() : POST received, getting the file from lighttpd\n");
    run_shell(commands::preupdate);
    update_status::instance().set_state(STATE_UPDATING);
    return do_update_process();
}

int reset_request() {
    updater_unlock();
    update_status::instance().save_files();
    update_error::instance().reset();
    return 0;
}

int reboot_request() {
    update_status::instance().save_files();
    run_shell(commands::reboot_request);
    return 0;
}

// A held lock with no upload file and state 1 was taken for an upload that
// no POST took over: it is stale, and is released here.
int lock_state_request() {
    const char* word = status_free;
    if (updater_is_locked()) {
        word = status_busy;
        if (!upload_in_progress()) {
            update_status& status = update_status::instance();
            if (status.get_state() == STATE_RECEIVING) {
                updater_unlock();
                status.set_state(STATE_IDLE);
                word = status_free;
            }
        }
    }
    answer(word);
    return 0;
}

int progress_request() {
    update_status& status = update_status::instance();
    if (updater_is_locked() && status.log_exists()) {
        status.print_log();
        return 0;
    }
    if (!upload_in_progress()) {
        if (!status.log_exists()) status.add_line("waiting for file ...", 1);
        status.print_log();
        return 0;
    }
    if (!updater_lock()) {
        debug_trace::instance().write("updater_lock() can't lock\n");
        return update_error::instance().end_update_with_error(ERROR_UPDATE_IN_PROGRESS);
    }
    status.set_state(STATE_RECEIVING);
    status.add_line("receiving package file ...", 10);
    status.print_log();
    return 0;
}

int get_request() {
    const char* query = std::getenv("QUERY_STRING");
    if (query == nullptr) return reset_request();
    if (std::strstr(query, "reboot") != nullptr) return reboot_request();
    if (std::strstr(query, "status") != nullptr) return lock_state_request();
    return progress_request();
}

}  // namespace

// Only async-signal-safe work: the lock goes and the process ends at once.
// Nothing is lost by skipping the exit handlers, because the trace, the log
// and the answers are written with whole write() calls as they happen and
// no user-space buffer holds anything to flush. The status file is untouched.
void termination_handler(int) {
    ::unlink(paths::lock_file);
    ::_exit(0);
}

int run_cgi_mode() {
    std::signal(SIGTERM, termination_handler);
    std::signal(SIGINT, termination_handler);
    std::signal(SIGQUIT, termination_handler);

    const char* method = std::getenv("REQUEST_METHOD");
    if (method == nullptr) return 0;
    if (method_is(method, "GET")) return get_request();
    if (method_is(method, "POST")) return update_request();
    return 0;
}
