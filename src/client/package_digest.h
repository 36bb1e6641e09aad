#pragma once

#include <cstdint>
#include <string>

// The package as a record names it: its size and SHA-256, so that a record
// tells exactly what each device got.
struct package_digest {
    uint64_t size = 0;
    std::string sha256;  // lower-case hex

    // Reads the whole file; false when it cannot.
    bool read(const std::string& path);
};
