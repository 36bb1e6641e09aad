#include "install/installer.h"

#include <unistd.h>
#include <cstdlib>
#include <string>

#include "state/update_status.h"
#include "support/debug_trace.h"
#include "support/device_paths.h"

bool installer::install() {
    const std::string prefix = ::getuid() != 0 ? commands::sudo_prefix : "";
    debug_trace& trace = debug_trace::instance();
    update_status& status = update_status::instance();

    trace.write("installer::install() : entering\n");
    status.add_line("stopping the application ...", 60);
    [[maybe_unused]] int stopped = std::system((prefix + commands::stop_application).c_str());

    const std::string command = prefix + commands::install_package + paths::package_file;
    trace.write("installer::install() : installing PKG file ")
        .write(paths::package_file)
        .write("\n");
    status.add_line("installing package file ...", 80);
    trace.write("installer::install() : install command: ").write(command).write("\n");
    if (std::system(command.c_str()) != 0) return false;

    trace.write("installer::install() : PKG file installed\n");
    ::unlink(paths::package_file);
    return true;
}
