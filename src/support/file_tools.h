#pragma once

#include <cstdint>
#include <memory>
#include <string>

// The file-system helpers the rest of the program shares. Stateless: create
// one where it is needed. None of them changes what it examines.
class file_tools {
  public:
    // True when the status of the path can be read (symbolic links followed).
    bool exists(const std::string& path) const;
    // True when the directory holds an entry whose name begins with `prefix`
    // ("." and ".." included). An empty prefix matches nothing.
    bool find_prefixed(const std::string& directory, const std::string& prefix) const;
    // The file's size in bytes; -1 when it cannot be read or does not fit in
    // 32 bits (the program handles files below 2 GiB only).
    int32_t size(const std::string& path) const;
    // The whole file followed by one zero byte, or null when the file cannot
    // be opened (which is traced), is empty, or cannot be read to its end.
    std::unique_ptr<char[]> load(const std::string& path) const;
};
