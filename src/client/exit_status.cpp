#include "exit_status.h"

#include <cstdio>

#include "state/error_messages.h"

namespace {
struct status_row {
    int status;
    const char* name;
    const char* meaning;
};

constexpr status_row rows[] = {
    {EXIT_UPDATED, "success",
     "updated; unless --no-wait, the device came back and its saved log says success"},
    {EXIT_SOME_DEVICES_FAILED, "some failed", "several devices: at least one failed"},
    {EXIT_USAGE, "usage",
     "bad command line, or a file it names (password, netrc, devices, log) cannot be used"},
    {EXIT_PACKAGE_UNREADABLE, "no package",
     "the package is missing or unreadable, or larger than the device takes; nothing was sent"},
    {EXIT_UNREACHABLE, "unreachable", "the device does not answer"},
    {EXIT_WRONG_PASSWORD, "wrong password", "the device refuses the user or password (401)"},
    {EXIT_REFUSED, "refused", "the device refuses the request (403)"},
    {EXIT_BUSY, "busy",
     "another update runs on the device (its lock state, or the busy answer to the POST); nothing "
     "was installed"},
    {EXIT_UPLOAD_LOST, "upload lost", "the connection was lost during the upload"},
    {EXIT_NOT_BACK, "not back", "the device did not restart and answer again in time"},
    {EXIT_UNEXPECTED_ANSWER, "unexpected",
     "the device answered something this client does not know"},
    {EXIT_NO_RESULT, "no result",
     "the update ended without a success or error entry, or the saved log does not say success"},
    {EXIT_INTERRUPTED, "interrupted",
     "stopped by a signal (Ctrl-C); an upload under way is cancelled, the device left free"},
    {EXIT_UNTRUSTED, "untrusted",
     "the device's certificate is not trusted (HTTPS); nothing was sent"},
    {EXIT_KEY_CHANGED, "key changed",
     "the device's key is not the pinned one or the one its first contact recorded; "
     "nothing was sent"},
    {EXIT_ROLLED_BACK, "rolled back",
     "the package was installed, but the device did not keep it running: it went back to the "
     "version before (its status document says so)"},
    {EXIT_DEVICE_ERROR, "device error",
     "the device's update ended with an error it has no number for"},
};

}  // namespace

const char* exit_status_name(int status) {
    if (status > EXIT_DEVICE_ERROR && status < EXIT_DEVICE_ERROR + error_code_count) {
        return "device error";
    }
    for (const status_row& row : rows) {
        if (row.status == status) return row.name;
    }
    return "failed";
}

std::string exit_status_table() {
    std::string table;
    char line[200];
    for (const status_row& row : rows) {
        std::snprintf(line, sizeof line, "  %3d  %s\n", row.status, row.meaning);
        table += line;
    }
    for (int code = 1; code < error_code_count; ++code) {
        std::snprintf(line, sizeof line, "  %3d  the device's error %d: %s\n",
                      EXIT_DEVICE_ERROR + code, code, error_messages[code]);
        table += line;
    }
    return table;
}

int device_error_number(const std::string& message) {
    for (int code = 1; code < error_code_count; ++code) {
        if (message == error_messages[code]) return code;
    }
    return 0;
}

outcome device_error(const std::string& message) {
    const int code = device_error_number(message);
    std::string text = "the device's update failed";
    if (code != 0) text += " (error " + std::to_string(code) + ")";
    outcome result{EXIT_DEVICE_ERROR + code, text + ": " + message};
    result.device_error = code;
    result.device_message = message;
    return result;
}
