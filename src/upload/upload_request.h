#pragma once

#include <cstdint>
#include <string>

// What the CGI variables of a POST say about its body.
struct upload_request {
    int32_t content_length = 0;  // only checked against 0
    std::string boundary;        // bare, as taken from CONTENT_TYPE; never empty once accepted
};
