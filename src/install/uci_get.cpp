#include "install/uci_get.h"

#include <unistd.h>
#include <cstdio>
#include <cstdlib>

#include "support/device_paths.h"

namespace {
bool is_space(int c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
}  // namespace

std::string uci_get(const std::string& key) {
    std::string command = commands::uci_get;
    command += key;
    command += " > ";
    command += paths::uci_output;
    [[maybe_unused]] int ignored = std::system(command.c_str());

    std::string word;
    FILE* output = std::fopen(paths::uci_output, "re");
    if (output == nullptr) return word;
    int c;
    do {
        c = std::getc(output);
    } while (c != EOF && is_space(c));
    while (c != EOF && !is_space(c)) {
        word += static_cast<char>(c);
        c = std::getc(output);
    }
    ::unlink(paths::uci_output);
    std::fclose(output);
    return word;
}
