#pragma once

#include <string>

// Reads a device setting through the configuration tool: the first word of
// the value, or "" when there is none (key missing, tool failing). Callers
// pass only constant keys; the key goes into the shell command unquoted.
std::string uci_get(const std::string& key);
