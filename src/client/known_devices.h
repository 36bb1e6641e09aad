#pragma once

#include <string>

#include "exit_status.h"
#include "update_report.h"

// Trust on first use, as ssh does with its known hosts: a file of
// "HOST:PORT sha256//BASE64" lines, the digest of each device's public key.
// A device met for the first time has its key recorded; a device met again
// must show the recorded key, or nothing is sent to it (EXIT_KEY_CHANGED,
// with both digests in the message). Safe from several threads at once.
// On success `pin` holds the digest to pin every connection to.
outcome known_device_pin(const std::string& url, const std::string& file, std::string& pin,
                         update_report& report);

// "sha256//BASE64" of the SubjectPublicKeyInfo of a PEM certificate; empty
// when it cannot be read.
std::string public_key_pin(const std::string& pem);
