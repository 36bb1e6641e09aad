#pragma once

#include <set>
#include <string>

// Which hosts a netrc file has a user and password for, read to check every
// device before anything is sent. libcurl itself reads the entries
// (CURLOPT_NETRC_FILE); this only looks at the "machine" and "default" words.
class netrc_file {
  public:
    // False when the file cannot be read.
    bool read(const std::string& path);
    bool covers(const std::string& host) const {
        return has_default_ || machines_.count(host) != 0;
    }

  private:
    std::set<std::string> machines_;
    bool has_default_ = false;
};
