#include "support/debug_trace.h"

#include <unistd.h>

#include "support/device_paths.h"
#include "support/fd_io.h"
#include "support/timestamp.h"

debug_trace& debug_trace::instance() {
    static debug_trace trace;
    return trace;
}

debug_trace::debug_trace() : file(open_for_append(paths::trace_file)) {}

debug_trace::~debug_trace() {
    close();
}

debug_trace& debug_trace::write(std::string_view text) {
    if (text.empty()) return *this;
    if (line.empty()) {
        line = format_timestamp();
        line += ' ';
    }
    line += text;
    char last = text.back();
    if (last == '\n' || last == '\r') {
        if (file >= 0) write_all(file, line);
        line.clear();
    }
    return *this;
}

void debug_trace::close() {
    if (file < 0) return;
    ::close(file);
    file = -1;
}
