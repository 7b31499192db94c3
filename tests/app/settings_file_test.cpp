#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "app/app_paths.h"
#include "app/settings_file.h"
#include "test_process.h"

namespace wharfy::app {
namespace {

using wharfy::testing::TempDir;

std::string contents(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

TEST(SettingsFile, KeepsUnknownKeysAndLeavesABadFileAloneUntilAChange) {
    TempDir dir;
    const std::string path = dir.path() + "/wharfy/settings.json";
    {
        SettingsFile fresh(path);
        EXPECT_EQ(fresh.value("memoryThresholdGB"), std::nullopt);
        ASSERT_TRUE(fresh.set("memoryThresholdGB", 6.5).ok());
    }
    std::ofstream(path) << R"({"memoryThresholdGB": 6.5, "future": {"x": [1, 2]}})";
    {
        SettingsFile known(path);
        EXPECT_EQ(known.value("memoryThresholdGB"), 6.5);
        ASSERT_TRUE(known.set("alertPermissionAsked", true).ok());
    }
    const auto rewritten = nlohmann::json::parse(contents(path));
    EXPECT_EQ(rewritten["future"], nlohmann::json::parse(R"({"x": [1, 2]})"));
    EXPECT_EQ(rewritten["alertPermissionAsked"], true);

    for (const char* bad : {"{not json", "[1, 2]", "\"text\""}) {
        std::ofstream(path) << bad;
        SettingsFile broken(path);
        EXPECT_EQ(broken.value("memoryThresholdGB"), std::nullopt) << bad;
        EXPECT_EQ(contents(path), bad) << "read must not rewrite";
        ASSERT_TRUE(broken.set("memoryThresholdGB", 2.0).ok());
        EXPECT_EQ(nlohmann::json::parse(contents(path)),
                  nlohmann::json({{"memoryThresholdGB", 2.0}}));
    }
}

TEST(AppPaths, XdgVariablesCountOnlyWhenAbsolute) {
    using Env = std::map<std::string, std::string>;
    auto resolve = [](Env env) {
        return AppPaths::resolve(
            [env](const char* name) -> std::optional<std::string> {
                if (auto it = env.find(name); it != env.end()) return it->second;
                return std::nullopt;
            },
            "/home/ana");
    };
    EXPECT_EQ(resolve({}),
              (AppPaths{"/home/ana/.config/wharfy/settings.json", "/home/ana/.local/state/wharfy",
                        "/home/ana/.local/state/wharfy/primary.lock",
                        "/home/ana/.local/state/wharfy/wharfy.log"}));
    const AppPaths set = resolve({{"XDG_CONFIG_HOME", "/c"},
                                  {"XDG_STATE_HOME", "/s"},
                                  {"XDG_RUNTIME_DIR", "/run/user/1000"}});
    EXPECT_EQ(set.settingsFile, "/c/wharfy/settings.json");
    EXPECT_EQ(set.stateFolder, "/s/wharfy");
    EXPECT_EQ(set.primaryLock, "/run/user/1000/wharfy/primary.lock");
    const AppPaths relative =
        resolve({{"XDG_CONFIG_HOME", "c"}, {"XDG_STATE_HOME", ""}, {"XDG_RUNTIME_DIR", "run"}});
    EXPECT_EQ(relative, resolve({}));
}

}  // namespace
}  // namespace wharfy::app
