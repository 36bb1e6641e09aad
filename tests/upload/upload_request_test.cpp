// Runs inside the device root: a rejected request ends the update for real.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <cstdlib>

#include "device_files.h"
#include "support/device_paths.h"
#include "upload/text_utils.h"
#include "upload/uploader.h"

namespace {

struct cgi_variables {
    const char* length;  // nullptr: unset
    const char* type;
};

void set_variables(cgi_variables variables) {
    auto set = [](const char* name, const char* value) {
        if (value)
            ::setenv(name, value, 1);
        else
            ::unsetenv(name);
    };
    set("CONTENT_LENGTH", variables.length);
    set("CONTENT_TYPE", variables.type);
}

int check(cgi_variables variables, upload_request& request) {
    set_variables(variables);
    return uploader().parse_cgi_request(request);
}

TEST(RequestCheck, AcceptsWhatBrowsersAndOddClientsSend) {
    const std::pair<cgi_variables, const char*> accepted[] = {
        {{"1234", "multipart/form-data; boundary=----WebKitFormBoundaryX"},
         "----WebKitFormBoundaryX"},
        {{"-1", "MULTIPART/Form-Data; boundary=abc"}, "abc"},
        {{" 42", "multipart/form-data;boundary=abc "}, "abc"},
        {{"7", " multipart/form-data ; charset=utf-8"}, "utf-8"},
        {{"7", "multipart/form-data; boundary=a=b"}, "a=b"},
        {{"7", "multipart/form-data; boundary=\"quoted\""}, "\"quoted\""},
        {{"7", "multipart/form-data; boundary=abc; charset=x"}, "abc; charset=x"},
        {{"99999999999", "multipart/form-data; boundary=big"}, "big"},
    };
    for (const auto& [variables, boundary] : accepted) {
        upload_request request;
        EXPECT_EQ(check(variables, request), 0) << variables.length << " " << variables.type;
        EXPECT_EQ(request.boundary, boundary);
    }
}

// Every rejection ends the update with code 2 and reads nothing: one pass
// over all of them in a child whose standard input must stay unread.
TEST(RequestCheck, RejectsEverythingElseWithBadHeaderAndReadsNothing) {
    const cgi_variables rejected[] = {
        {"0", "multipart/form-data; boundary=abc"},
        {"", "multipart/form-data; boundary=abc"},
        {"abc", "multipart/form-data; boundary=abc"},
        {nullptr, "multipart/form-data; boundary=abc"},
        {"10", "multipart/form-data"},
        {"10", nullptr},
        {"10", "multipart/mixed; boundary=abc"},
        {"10", "text/plain; boundary=abc"},
        {"10", "; boundary=abc"},
        {"10", "multipart/form-data; boundary="},
        {"10", "multipart/form-data; boundary= \r\n"},
        {"10", "multipart/form-data; boundary"},
    };
    write_file("/tmp/unread-body", "body that must not be read");
    for (const cgi_variables& variables : rejected) {
        SCOPED_TRACE(std::string(variables.length ? variables.length : "(unset)") + " / " +
                     (variables.type ? variables.type : "(unset)"));
        ::unlink((std::string(paths::persistent_dir) + "updater-cgi.log").c_str());
        set_variables(variables);
        EXPECT_EXIT(
            {
                int input = ::open("/tmp/unread-body", O_RDONLY);
                upload_request request;
                int result = uploader(input).parse_cgi_request(request);
                bool unread = ::lseek(input, 0, SEEK_CUR) == 0;
                std::exit(result == -2 && unread ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), "");
        EXPECT_NE(read_file(std::string(paths::persistent_dir) + "updater-cgi.log")
                      .find("ERROR: bad/malformed http header<br>"),
                  std::string::npos);
    }
}

TEST(TextUtils, StripAndCompare) {
    EXPECT_EQ(strip_white_space("token"), "token");
    EXPECT_EQ(strip_white_space(" token"), "token");
    EXPECT_EQ(strip_white_space("\t\r\n token \r\n"), "token");
    EXPECT_EQ(strip_white_space("two words"), "two words");
    EXPECT_EQ(strip_white_space(" \t"), "");
    EXPECT_TRUE(equals_ignore_case("Content-Disposition", "content-DISPOSITION"));
    EXPECT_FALSE(equals_ignore_case("", ""));
    EXPECT_FALSE(equals_ignore_case("a", ""));
    EXPECT_FALSE(equals_ignore_case("Content-Disposition ", "Content-Disposition"));
}

}  // namespace
