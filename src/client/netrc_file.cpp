#include "netrc_file.h"

#include <cctype>
#include <fstream>
#include <sstream>

// Words are separated by white space; a "macdef" body runs to the next empty
// line and names no machine.
bool netrc_file::read(const std::string& path) {
    std::ifstream file(path);
    if (!file) return false;
    std::string line;
    bool in_macro = false;
    while (std::getline(file, line)) {
        if (in_macro) {
            in_macro = line.find_first_not_of(" \t\r") != std::string::npos;
            continue;
        }
        std::istringstream words(line);
        std::string word;
        while (words >> word) {
            if (word == "default") has_default_ = true;
            if (word == "macdef") in_macro = true;
            if (word == "machine" && words >> word) {
                for (char& c : word)
                    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                machines_.insert(word);
            }
        }
    }
    return !file.bad();
}
