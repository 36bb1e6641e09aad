#include <gtest/gtest.h>

#include <sstream>

#include "device_status.h"
#include "device_url.h"
#include "exit_status.h"
#include "options.h"
#include "progress_text.h"
#include "update_log.h"

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
    EXPECT_EQ(rate_of("1024G"), 1099511627776);
    for (const char* refused : {"0", "K", "-5", "+5", "4MB", "1.5X", "0.1", "2000G", ""})
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
    EXPECT_EQ(parsed({"d", "-"}, out), "");  // a file named "-", checked as a package
    // After "--", a package whose name starts with "-".
    options dashed;
    EXPECT_EQ(parsed({"--parallel=2", "--", "d", "-pkg"}, dashed), "");
    EXPECT_EQ(dashed.update.package, "-pkg");

    const std::pair<std::vector<std::string>, const char*> refused[] = {
        {{"-u", "admin:secret", "d", "pkg"}, "--user takes a name only"},
        {{"-x", "d", "pkg"}, "unknown option -x"},
        {{"--colour", "d", "pkg"}, "unknown option --colour"},
        {{"--no-wait=yes", "d", "pkg"}, "--no-wait takes no value"},
        {{"d", "--timeout"}, "--timeout needs a value"},
        {{"--retry", "-1", "d", "pkg"}, "--retry takes a number"},
        {{"--connect-timeout", "0", "d", "pkg"}, "--connect-timeout takes seconds"},
        {{"pkg"}, "no device given"},
        {{"--devices", "/nonexistent", "d", "pkg"}, "cannot read the devices file"},
        {{"-u", "a", "--password-file", "/nonexistent", "d", "pkg"},
         "cannot read the password file"},
        {{"ftp://d", "pkg"}, "not an http or https URL: ftp://d"},
        {{"--netrc-file", "n", "-u", "a", "d", "pkg"}, "--netrc-file names each device's user"},
    };
    for (const auto& [args, error] : refused) {
        options ignored;
        EXPECT_EQ(parsed(args, ignored).rfind(error, 0), 0u) << args.front() << " " << error;
    }
}

// The device's log as the polls read it, and what is shown of each entry.
TEST(client_update_log, entries) {
    const std::vector<log_entry> entries = parse_update_log(
        "[001.250:40] reassembling data ...<br>[002.001] no percent<br>[3.5:-5] below zero<br>"
        "[004.000:100] <font color=#2020ff><b>update completed, firmware successfully loaded<br>"
        "[005.1:60] ERROR: installation failed<br>[x.1:50] not a stamp");
    const std::tuple<int, const char*, bool, bool> rows[] = {
        {40, "reassembling data ...", false, false},
        {-1, "no percent", false, false},
        {-1, "below zero", false, false},
        {100, "update completed, firmware successfully loaded", false, true},
        {60, "ERROR: installation failed", true, false},
        {-1, "[x.1:50] not a stamp", false, false},
    };
    ASSERT_EQ(entries.size(), std::size(rows));
    for (size_t i = 0; i < entries.size(); ++i) {
        const auto& [percent, text, error, success] = rows[i];
        EXPECT_EQ(entries[i].percent, percent) << i;
        EXPECT_EQ(entries[i].text, text) << i;
        EXPECT_EQ(entries[i].error, error) << i;
        EXPECT_EQ(entries[i].success, success) << i;
    }
    EXPECT_EQ(entries[4].error_message(), "installation failed");
}

// The upload's line as a person reads it, from its first moment to its end.
TEST(client_progress_text, upload_lines) {
    EXPECT_EQ(upload_summary(0, 8 << 20, 0), "0% 0.0 of 8.0 MiB, - MiB/s, ? left");
    EXPECT_EQ(upload_summary(2 << 20, 8 << 20, 1), "25% 2.0 of 8.0 MiB, 2.0 MiB/s, 0:03 left");
    EXPECT_EQ(upload_summary(8 << 20, 8 << 20, 90.5), "100% 8.0 of 8.0 MiB, 0.1 MiB/s, 0:00 left");
    EXPECT_EQ(upload_done(0, 0), "0.0 MiB in 0.00 s, - MiB/s");
}

// --help lists each of the device's errors once, the last one included; its
// options fit a terminal of 80 columns (help2man reads them too).
TEST(client_options, help_lists_every_device_error) {
    std::istringstream help(usage_text());
    std::string line;
    while (std::getline(help, line) && line != "Options:") {
    }
    while (std::getline(help, line) && !line.empty())
        EXPECT_LT(line.size(), 80u) << line;
    EXPECT_NE(usage_text().find("\n      --netrc-file FILE  each device's"), std::string::npos);
    const std::string table = exit_status_table();
    size_t count = 0;
    for (size_t at = table.find("the device's error "); at != std::string::npos;
         at = table.find("the device's error ", at + 1))
        ++count;
    EXPECT_EQ(count, 10u);
    EXPECT_NE(table.find("30  the device's error 10: update already in progress"),
              std::string::npos);
}

// Cases the device rig cannot make cheaply: a device that gains its status
// document with this update is judged by it; one whose document before the
// upload could not be read is not (the record may be an earlier sending).
TEST(client_status, verdict_needs_a_readable_document_before) {
    const std::string sha(64, 'a');
    const status_reading fell_back{
        false, device_status{"1.0", "A", true, 0, {{"t", "2.0", sha, "installed", ""}}}};
    EXPECT_EQ(judged({}, status_reading{}, fell_back, sha).status, EXIT_ROLLED_BACK);
    const outcome unknown = judged({}, status_reading{false, std::nullopt}, fell_back, sha);
    EXPECT_EQ(unknown.status, EXIT_UPDATED);
    EXPECT_EQ(unknown.install_result + unknown.version_after, "1.0");
}
