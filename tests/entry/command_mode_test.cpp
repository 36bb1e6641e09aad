// The command-line face, run as the real program in a device root.
#include <gtest/gtest.h>

#include "device_root.h"

namespace {

const std::string version_line = "Tolven Updater tool, version 2.03 27.01.2015\n";

run_result run_with(device_root& root, std::vector<std::string> args) {
    run_options options;
    options.args = std::move(args);
    return root.run(options);
}

TEST(CommandMode, HelpPrintsTheUsageTextExactly) {
    device_root root;
    run_result help = run_with(root, {"--help"});
    EXPECT_EQ(help.exit_status, 0);
    const std::string& out = help.out;
    ASSERT_EQ(out.substr(0, version_line.size() + 1), version_line + "\n");
    EXPECT_EQ(out.substr(version_line.size() + 1, 32), "Usage: updater [OPTION] [FILE]\r\n");
    const std::string last = "   --version : display the current updater version\n\n";
    EXPECT_EQ(out.substr(out.size() - last.size()), last);
    EXPECT_NE(out.find("\nupdate status.\n\nCGI mode features:\n"), std::string::npos);
    EXPECT_NE(out.find("   HTTP GET /updater&request=1 to get the current\n      progress state\n"),
              std::string::npos);
    EXPECT_NE(out.find("   --     information on the cgi mode usage     --\n\nCommand mode"),
              std::string::npos);
    EXPECT_EQ(out.size(), 766u);
    EXPECT_TRUE(root.exists("/var/log/updater-cgi.debug")) << "every run opens the trace";
    EXPECT_EQ(root.read("/var/log/updater-cgi.debug"), "");
}

TEST(CommandMode, ArgumentsAndExitValues) {
    device_root root;
    const std::string usage = run_with(root, {"--help"}).out;

    struct expectation {
        std::vector<std::string> args;
        std::string out;
        int status;
    };
    const expectation cases[] = {
        {{"--version"}, version_line, 0},
        {{"--version", "x"}, version_line, 0},
        {{"--help", "--version"}, usage, 0},
        {{"--bogus"}, usage, 1},
        {{"--HELP"}, usage, 1},
        {{"-h"}, usage, 1},
        {{"--versions"}, usage, 1},
        {{"--help", "a", "b"}, "", 1},
        {{"--version", "a", "b", "c"}, "", 1},
    };
    for (const expectation& c : cases) {
        run_result result = run_with(root, c.args);
        EXPECT_EQ(result.out, c.out) << c.args[0] << " +" << c.args.size() - 1;
        EXPECT_EQ(result.exit_status, c.status) << c.args[0] << " +" << c.args.size() - 1;
    }
}

TEST(CommandMode, NoArgumentOutsideAWebServerIsAQuietCgiRun) {
    device_root root;
    run_result result = run_with(root, {});
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_TRUE(root.exists("/var/log/updater-cgi.debug"));
}

}  // namespace
