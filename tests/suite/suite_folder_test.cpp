#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "suite/suite_app.h"
#include "suite/suite_folder.h"

using namespace nemarro::suite;

namespace {

TEST(SuiteFolder, LiesInTheRealUsersHomeUnlessSandboxed) {
    struct Row {
        const char* name;
        SuiteLocationFacts facts;
        std::vector<std::string> expected;
    };
    const std::string relative = "/.local/share/nemarro/suite";
    const std::vector<Row> rows = {
        {"password home wins over HOME",
         {"/home/ann", "/tmp/elsewhere", false},
         {"/home/ann" + relative}},
        {"trailing slash", {"/home/ann/", std::nullopt, false}, {"/home/ann" + relative}},
        {"no entry: HOME", {std::nullopt, "/root", false}, {"/root" + relative}},
        {"empty entry: HOME", {"", "/root", false}, {"/root" + relative}},
        {"relative entry: HOME", {"home/ann", "/root", false}, {"/root" + relative}},
        {"no home at all", {std::nullopt, "relative", false}, {}},
        {"sandboxed", {"/home/ann", "/home/ann", true}, {}},
    };
    for (const Row& row : rows) {
        std::vector<std::string> paths;
        for (const SuiteFolder& folder : SuiteFolder::reachable(row.facts))
            paths.push_back(folder.path);
        EXPECT_EQ(paths, row.expected) << row.name;
    }
}

TEST(SuiteFolder, KnowsFlatpakAndSnapSandboxes) {
    const auto with = [](std::set<std::string> names) {
        return SuiteFolder::isSandboxed([&](const char* name) { return names.count(name) > 0; });
    };
    EXPECT_TRUE(with({"FLATPAK_ID"}));
    EXPECT_TRUE(with({"SNAP_NAME"}));
    EXPECT_FALSE(with({"XDG_DATA_HOME", "SNAP", "container"}));
}

TEST(SuiteFolder, IsStandardizedByText) {
    EXPECT_EQ(SuiteFolder::at("/a//b/./c/../d/").path, "/a/b/d");
    EXPECT_EQ(SuiteFolder::at("/a/b"), SuiteFolder::at("/a/b/"));
    EXPECT_EQ(SuiteFolder::at("/a/b").hostLockPath(), "/a/b/host.lock");
    EXPECT_EQ(SuiteFolder::at("/a/b").glancesPath(), "/a/b/glances");
}

}  // namespace
