// Stands in for the real ending of an update in the fuzz target: it logs the
// error like the real one but neither copies files nor pauses 1.5 s.
#include "state/update_error.h"
#include "state/update_status.h"

update_error& update_error::instance() {
    static update_error error;
    return error;
}

const char* update_error::message(int code) const {
    return code == ERROR_BAD_HTTP_HEADER ? "bad/malformed http header" : "";
}

int update_error::end_update_with_error(int code) {
    update_status::instance().add_error(message(code));
    return -code;
}

void update_error::reset() {}
