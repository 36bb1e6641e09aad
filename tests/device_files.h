#pragma once
// Small helpers for tests that run inside the device root and look at its
// fixed files directly.

#include <sys/stat.h>
#include <unistd.h>
#include <fstream>
#include <sstream>
#include <string>

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline bool file_exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}
