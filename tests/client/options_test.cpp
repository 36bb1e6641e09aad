#include <gtest/gtest.h>

#include "exit_status.h"
#include "options.h"

namespace {
// Parses "update-device ARGS... pkg"; the rate, or -1 when refused.
long long rate_of(std::vector<std::string> args) {
    args.insert(args.begin(), "update-device");
    args.push_back("10.0.0.2");
    args.push_back("pkg");
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    options out;
    std::string error;
    if (!parse_options(static_cast<int>(argv.size()), argv.data(), out, error)) return -1;
    return static_cast<long long>(out.update.rate_limit);
}
}  // namespace

// The upload rate as a user writes it on a production line's script.
TEST(client_options, rate_limit_units) {
    EXPECT_EQ(rate_of({}), 0);
    EXPECT_EQ(rate_of({"--limit-rate", "100"}), 100);
    EXPECT_EQ(rate_of({"--limit-rate=512K"}), 512 * 1024);
    EXPECT_EQ(rate_of({"--limit-rate", "512k"}), 512 * 1024);
    EXPECT_EQ(rate_of({"--limit-rate", "4M"}), 4 * 1048576);
    for (const char* refused : {"0", "1G", "K", "-5", "4MB"})
        EXPECT_EQ(rate_of({"--limit-rate", refused}), -1) << refused;
}

// --help lists each of the device's errors once, the last one included.
TEST(client_options, help_lists_every_device_error) {
    const std::string table = exit_status_table();
    size_t count = 0;
    for (size_t at = table.find("the device's error "); at != std::string::npos;
         at = table.find("the device's error ", at + 1))
        ++count;
    EXPECT_EQ(count, 10u);
    EXPECT_NE(table.find("30  the device's error 10: update already in progress"),
              std::string::npos);
}
