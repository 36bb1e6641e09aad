#pragma once

// Runs one whole update in the POST process: configuration gate, upload,
// installation, the final log entries and the reboot. Returns 0 after a
// successful update, else the negated error code the update ended with.
int do_update_process();
