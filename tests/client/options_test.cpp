#include <gtest/gtest.h>

#include "device_url.h"
#include "exit_status.h"
#include "options.h"

namespace {
// Parses "update-device ARGS..."; the error, or "" when accepted.
std::string parsed(std::vector<std::string> args, options& out) {
    args.insert(args.begin(), "update-device");
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    std::string error;
    parse_options(static_cast<int>(argv.size()), argv.data(), out, error);
    return error;
}

// The rate of "--limit-rate TEXT", or -1 when refused.
long long rate_of(const std::string& text) {
    options out;
    if (!parsed({"--limit-rate", text, "10.0.0.2", "pkg"}, out).empty()) return -1;
    return static_cast<long long>(out.update.rate_limit);
}
}  // namespace

// The upload rate as a user writes it on a production line's script.
TEST(client_options, rate_limit_units) {
    EXPECT_EQ(rate_of("100"), 100);
    EXPECT_EQ(rate_of("512K"), 512 * 1024);
    EXPECT_EQ(rate_of("512k"), 512 * 1024);
    EXPECT_EQ(rate_of("4M"), 4 * 1048576);
    EXPECT_EQ(rate_of("1.5M"), 3 * 524288);
    EXPECT_EQ(rate_of("1G"), 1073741824);
    for (const char* refused : {"0", "K", "-5", "4MB", "1.5X", "0.1", "2000G", ""})
        EXPECT_EQ(rate_of(refused), -1) << refused;
}

// Two spellings of one device are one URL; what is no device is refused.
TEST(client_options, device_urls) {
    const std::pair<const char*, const char*> rows[] = {
        {"10.0.0.2", "https://10.0.0.2"},
        {"HTTP://Device.Lan:80/update/", "http://device.lan"},
        {"https://d:8443/update/index.html/", "https://d:8443/update/index.html"},
        {"https://d:443/", "https://d"},
        {"http://[::1]:8080/", "http://[::1]:8080"},
        {"ftp://d", ""},
        {"http://", ""},
        {"http:///update/", ""},
        {"http://user:secret@d", ""},
        {"http://d/?status=1", ""},
    };
    for (const auto& [text, url] : rows)
        EXPECT_EQ(device_url::parse(text).url, url) << text;
}

// The command line a production line writes: a short option, duplicates,
// and mistakes caught with a message naming them.
TEST(client_options, command_lines) {
    options out;
    EXPECT_EQ(parsed({"--parallel=2", "https://d", "https://d/", "D/update", "e", "pkg"}, out), "");
    EXPECT_EQ(out.urls, (std::vector<std::string>{"https://d", "https://e"}));
    EXPECT_EQ(out.notes.size(), 2u);
    EXPECT_EQ(out.update.package, "pkg");

    const std::pair<std::vector<std::string>, const char*> refused[] = {
        {{"-u", "admin:secret", "d", "pkg"}, "--user takes a name only"},
        {{"-x", "d", "pkg"}, "unknown option -x"},
        {{"--colour", "d", "pkg"}, "unknown option --colour"},
        {{"--no-wait=yes", "d", "pkg"}, "--no-wait takes no value"},
        {{"d", "--timeout"}, "--timeout needs a value"},
        {{"--retry", "-1", "d", "pkg"}, "--retry takes a number"},
        {{"--connect-timeout", "0", "d", "pkg"}, "--connect-timeout takes seconds"},
        {{"pkg"}, "no device given"},
        {{"ftp://d", "pkg"}, "not an http or https URL: ftp://d"},
        {{"--netrc-file", "n", "-u", "a", "d", "pkg"}, "--netrc-file names each device's user"},
    };
    for (const auto& [args, error] : refused) {
        options ignored;
        EXPECT_EQ(parsed(args, ignored).rfind(error, 0), 0u) << args.front() << " " << error;
    }
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
