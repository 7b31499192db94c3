// `make install` puts the binary and a user unit that runs it under a prefix.
#include <gtest/gtest.h>

#include <fstream>

#include "system/command_runner.h"
#include "test_process.h"

namespace wharfy {
namespace {

using wharfy::testing::TempDir;

TEST(Install, BinaryAndAUserUnitThatSystemdAccepts) {
    TempDir prefix;
    SystemActionRunner runner(120);
    const auto installed =
        runner.run(WHARFY_CMAKE, {"--install", WHARFY_BUILD_DIR, "--prefix", prefix.path()},
                   {{"PATH", "/usr/bin:/bin"}});
    ASSERT_EQ(installed.status, 0) << installed.error;
    const std::string unit = prefix.path() + "/share/systemd/user/wharfy.service";
    std::ifstream in(unit);
    const std::string text((std::istreambuf_iterator<char>(in)), {});
    EXPECT_NE(text.find("\nExecStart=" + prefix.path() + "/bin/wharfy --background\n"),
              std::string::npos)
        << text;
    const auto version = runner.run(prefix.path() + "/bin/wharfy", {"--version"}, {});
    EXPECT_EQ(version.status, 0);

    const std::string analyze = "/usr/bin/systemd-analyze";
    if (::access(analyze.c_str(), X_OK) != 0)
        GTEST_SKIP() << "systemd-analyze is not installed, so the unit file is not verified";
    const auto verified = runner.run(analyze, {"verify", unit}, {{"PATH", "/usr/bin:/bin"}});
    EXPECT_EQ(verified.status, 0) << verified.output << verified.error;
    EXPECT_EQ(verified.error, "");
}

}  // namespace
}  // namespace wharfy
