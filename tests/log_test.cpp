// The default logging of the platform, run in a child that does not override it, is tested through
// the little program log_default.cpp.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/emulator.h"

namespace {

// Standard error of the program, run with the given environment assignments.
std::string run(const std::string& environment) {
    const std::string program = kest::test::command(LOG_DEFAULT_PROGRAM);
    FILE* pipe = popen((environment + " " + program + " 2>&1 >/dev/null").c_str(), "r");
    std::string output;
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe))
        output += static_cast<char>(c);
    EXPECT_EQ(0, pclose(pipe));
    return output;
}

TEST(Log, DefaultThresholdDropsDebugAndKeepsErrno) {
    EXPECT_EQ(
        "error: kest_test log_default:1 main(): broken 7: No such file or directory (errno 2)\n"
        "info: kest_test log_default:3 main(): fine\n",
        run("env -u KEST_LOG -u KEST_LOG_LEVEL"));
}

TEST(Log, ThresholdAndTargetFromEnvironment) {
    EXPECT_EQ("", run("KEST_LOG_LEVEL=2"));
    EXPECT_NE(std::string::npos, run("KEST_LOG_LEVEL=7").find("debug: "));
    EXPECT_EQ(run("env -u KEST_LOG_LEVEL"), run("KEST_LOG_LEVEL=verbose"));
    EXPECT_EQ("", run("KEST_LOG=syslog"));
}

TEST(Log, LineStaysOneLineAndIsCutAndEnded) {
    const std::string output = run("LONG=1");
    EXPECT_LT(output.size(), 4096u);
    EXPECT_NE(std::string::npos, output.find("main(): \ttwo?lines?xxx"));
    EXPECT_EQ('\n', output.back());
    EXPECT_EQ(output.size() - 1, output.find('\n'));
}

}  // namespace
