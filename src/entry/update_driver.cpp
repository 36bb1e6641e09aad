#include "entry/update_driver.h"

#include <unistd.h>
#include <cstdlib>
#include <string>

#include "install/installer.h"
#include "install/uci_get.h"
#include "state/update_error.h"
#include "state/update_status.h"
#include "state/updater_lock.h"
#include "support/debug_trace.h"
#include "support/device_paths.h"
#include "upload/uploader.h"

namespace {
constexpr char enabled_key[] = "security.update.enabled";
constexpr char disabled_value[] = "false";
// Lets the page's polls show the final log before the lock goes and the
// device reboots.
constexpr unsigned final_pause_seconds = 10;

int fail(int code) {
    return update_error::instance().end_update_with_error(code);
}
}  // namespace

int do_update_process() {
    debug_trace& trace = debug_trace::instance();
    update_status& status = update_status::instance();

    const std::string enabled = uci_get(enabled_key);
    trace.write("do_update_process() : security.update.enabled=").write(enabled).write("\n");
    if (enabled == disabled_value) return fail(ERROR_UPDATE_DISABLED);

    trace.write("do_update_process() : upload start ...\n");
    if (uploader().run() != 0) return fail(ERROR_UPLOAD_ABORTED);

    trace.write("do_update_process() : upload completed ...\n")
        .write("do_update_process() : install started ...\n");
    if (!installer().install()) return fail(ERROR_INSTALLATION_FAILED);
    trace.write("do_update_process() : install completed ...\n");

    status.add_line("update completed", 100);
    status.add_result(false);
    trace.close();

    ::sleep(final_pause_seconds);
    updater_unlock();
    status.save_files();

    std::string reboot = ::getuid() != 0 ? commands::sudo_prefix : "";
    reboot += commands::reboot_after_update;
    [[maybe_unused]] int ignored = std::system(reboot.c_str());
    return 0;
}
