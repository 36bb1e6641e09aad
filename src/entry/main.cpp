#include "entry/cgi_dispatch.h"
#include "entry/command_mode.h"
#include "support/debug_trace.h"

// Opens the trace before anything else, then picks the face by argument count.
int main(int argc, char** argv) {
    debug_trace::instance();
    if (argc == 1) return run_cgi_mode();
    return run_command_mode(argc, argv);
}
