#include "upload/upload_request.h"

#include <cstdlib>

#include "state/update_error.h"
#include "upload/text_utils.h"
#include "upload/uploader.h"

namespace {
constexpr char form_media_type[] = "multipart/form-data";

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}
}  // namespace

// Only the first "=" after the first ";" matters: whatever follows it, quotes
// and further parameters included, is the boundary the body is checked against.
int uploader::parse_cgi_request(upload_request& request) {
    std::string length = environment("CONTENT_LENGTH");
    std::string type = environment("CONTENT_TYPE");

    request.content_length = string_to_int(length);
    if (request.content_length == 0) return reject_request();

    size_t semicolon = type.find(';');
    if (semicolon == std::string::npos) return reject_request();
    if (!equals_ignore_case(strip_white_space(std::string_view(type).substr(0, semicolon)),
                            form_media_type)) {
        return reject_request();
    }

    size_t equals = type.find('=', semicolon + 1);
    if (equals == std::string::npos) return reject_request();
    std::string boundary = strip_white_space(std::string_view(type).substr(equals + 1));
    if (boundary.empty()) return reject_request();

    request.boundary = std::move(boundary);
    return 0;
}

int uploader::reject_request() {
    return update_error::instance().end_update_with_error(ERROR_BAD_HTTP_HEADER);
}
