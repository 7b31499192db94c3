#include "core/ports/project_resolver.h"

#include <gtest/gtest.h>

#include "fake_files.h"

namespace wharfy {
namespace {

using wharfy::testing::FakeFiles;

TEST(ProjectResolver, ResolvesAndAbbreviates) {
    struct Case {
        const char* what;
        const char* cwd;
        const char* gitFolder;  // the one git folder present, "" for none
        bool fullDiskAccess;
        const char* project;
        bool isRepository;
        bool expectProbes;
    };
    const Case cases[] = {
        {"nearest git folder above", "/Users/ana/src/app/server", "/Users/ana/src/app/.git", false,
         "~/src/app", true, true},
        {"home itself is never a project", "/Users/ana", "/Users/ana/.git", true, "~", false,
         false},
        {"home's .git is not taken for a subfolder", "/Users/ana/notes", "/Users/ana/.git", true,
         "~/notes", false, true},
        {"privacy folder without access: no probe", "/Users/ana/Documents/site",
         "/Users/ana/Documents/site/.git", false, "~/Documents/site", false, false},
        {"privacy folder with access", "/Users/ana/Documents/site",
         "/Users/ana/Documents/site/.git", true, "~/Documents/site", true, true},
        {"cloud storage is private too", "/Users/ana/Library/CloudStorage/x", "", false,
         "~/Library/CloudStorage/x", false, false},
        {"prefix match is on whole components", "/Users/ana/Documentsx/a",
         "/Users/ana/Documentsx/a/.git", false, "~/Documentsx/a", true, true},
        {"outside home, unabbreviated", "/opt/srv/app", "/opt/srv/.git", false, "/opt/srv", true,
         true},
        {"root is not walked", "/", "/.git", true, "/", false, false},
    };
    for (const auto& c : cases) {
        FakeFiles files;
        files.present = {c.gitFolder};
        ProjectResolver resolver("/Users/ana", c.fullDiskAccess, files.exists());
        EXPECT_EQ(resolver.resolve(c.cwd), (ProjectInfo{c.project, c.isRepository})) << c.what;
        EXPECT_EQ(!files.probes.empty(), c.expectProbes) << c.what;
    }
}

TEST(ProjectResolver, WalkOutsideHomeStopsBeforeTheRoot) {
    FakeFiles files;
    ProjectResolver resolver("/home/u", true, files.exists());
    EXPECT_EQ(resolver.resolve("/opt/a/b"), (ProjectInfo{"/opt/a/b", false}));
    EXPECT_EQ(files.probes,
              (std::vector<std::string>{"/opt/a/b/.git", "/opt/a/.git", "/opt/.git"}));
}

TEST(ProjectInfo, NameIsTheLastComponentAndTheRootNamesItself) {
    const std::pair<const char*, const char*> cases[] = {
        {"~/src/app", "app"}, {"~", "~"}, {"/", "/"}, {"/opt/srv/", "srv"}};
    for (const auto& [path, name] : cases)
        EXPECT_EQ((ProjectInfo{path, false}).name(), name) << path;
}

}  // namespace
}  // namespace wharfy
