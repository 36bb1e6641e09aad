// Runs inside the device root: the package file is the real /tmp one.
#include "upload/uploader.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "device_files.h"
#include "multipart_body.h"
#include "support/device_paths.h"

namespace {

class Reassembly : public ::testing::Test {
  protected:
    void SetUp() override {
        ::unlink(paths::package_file);
        ::setenv("CONTENT_LENGTH", "1000", 1);
        set_boundary(test_boundary);
    }
    static void set_boundary(const std::string& boundary) {
        ::setenv("CONTENT_TYPE", ("multipart/form-data; boundary=" + boundary).c_str(), 1);
    }
    // Uploads `body` as standard input would deliver it.
    static int upload(const std::string& body) {
        write_file("/tmp/body", body);
        int input = ::open("/tmp/body", O_RDONLY);
        int result = uploader(input).run();
        ::close(input);
        return result;
    }
    static std::string package() { return read_file(paths::package_file); }
    static bool package_exists() { return file_exists(paths::package_file); }
};

TEST_F(Reassembly, PackageHoldsExactlyTheFileBytes) {
    for (const std::string& content :
         {std::string("firmware"), std::string(), awkward_content(3 * 1024 * 1024 + 77),
          awkward_content(1048064, 3), awkward_content(1048576 + 512, 4)}) {
        ASSERT_EQ(upload(form_with_file(content)), 0) << content.size();
        EXPECT_TRUE(package() == content)
            << "size " << content.size() << " got " << package().size();
    }
}

TEST_F(Reassembly, FindsTheFilePartBehindOtherFields) {
    std::string body = "preamble line\r\n" + text_field("version", "1.2") +
                       text_field("note", "Content-Disposition: no file here") +
                       form_with_file("payload");
    ASSERT_EQ(upload(body), 0);
    EXPECT_EQ(package(), "payload");
}

TEST_F(Reassembly, FieldAfterTheFilePartEndsUpInThePackage) {
    std::string trailing = text_field("after", "x");
    std::string body = file_part_header() + "payload\r\n" +
                       trailing.substr(0, trailing.size() - 2) + closing_delimiter();
    ASSERT_EQ(upload(body), 0);
    EXPECT_EQ(package(), "payload\r\n" + trailing.substr(0, trailing.size() - 2));
}

TEST_F(Reassembly, HeaderNameIsCaseInsensitiveButFilenameIsNot) {
    std::string lower = "--" + test_boundary +
                        "\r\ncontent-disposition: form-data; name=\"f\"; filename=\"a\"\r\n\r\n" +
                        "data" + closing_delimiter();
    ASSERT_EQ(upload(lower), 0);
    EXPECT_EQ(package(), "data");

    std::string capitals =
        "--" + test_boundary +
        "\r\nContent-Disposition: form-data; name=\"f\"; FILENAME=\"a\"\r\n\r\n" + "data" +
        closing_delimiter();
    EXPECT_EQ(upload(capitals), 1);
}

TEST_F(Reassembly, FilenameWithoutQuoteIsSkipped) {
    std::string body = "--" + test_boundary +
                       "\r\nContent-Disposition: form-data; name=\"f\"; filename=plain\r\n\r\n" +
                       "not a file part\r\n" + form_with_file("real");
    ASSERT_EQ(upload(body), 0);
    EXPECT_EQ(package(), "real");
}

TEST_F(Reassembly, BadEndRemovesThePackage) {
    const std::string content = awkward_content(100000);
    const std::string wrong_end[] = {
        file_part_header() + content + "\r\n--" + test_boundary + "--",          // no CR LF
        form_with_file(content) + "epilogue",                                    // text after
        file_part_header() + content + "\r\n--" + "other-boundary-value--\r\n",  // wrong boundary
        file_part_header() + "tiny",  // shorter than delimiter
    };
    for (const std::string& body : wrong_end) {
        write_file(paths::package_file, "an earlier package");
        EXPECT_EQ(upload(body), 1);
        EXPECT_FALSE(package_exists());
    }
    set_boundary("not-the-body-boundary");
    EXPECT_EQ(upload(form_with_file(content)), 1);
    EXPECT_FALSE(package_exists());
}

TEST_F(Reassembly, InputEndingBeforeTheFileLeavesAnEarlierPackageAlone) {
    for (const std::string& body :
         {text_field("only", "fields"), file_part_header().substr(0, 60), std::string(),
          "--" + test_boundary + "\r\nContent-Disposition: form-data; filename=\"x\"\r\nno end"}) {
        write_file(paths::package_file, "an earlier package");
        EXPECT_EQ(upload(body), 1);
        EXPECT_EQ(package(), "an earlier package");
    }
}

TEST_F(Reassembly, OverlongHeaderLineFailsTheUpload) {
    std::string body = "--" + test_boundary + "\r\nContent-Disposition: form-data; name=\"" +
                       std::string(200000, 'n') + "\"; filename=\"x\"\r\n\r\ndata" +
                       closing_delimiter();
    EXPECT_EQ(upload(body), 1);
    EXPECT_EQ(upload(std::string(1000000, 'x')), 1) << "a body without a single newline";
}

TEST_F(Reassembly, LogsReceptionForTheUser) {
    const size_t mark = read_file(paths::log_file).size();
    ASSERT_EQ(upload(form_with_file("x")), 0);
    std::string log = read_file(paths::log_file).substr(mark);
    EXPECT_NE(log.find(":40] reassembling data ...<br>["), std::string::npos) << log;
    EXPECT_NE(log.find(":50] package file received<br>"), std::string::npos) << log;
}

}  // namespace
