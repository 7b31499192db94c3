// Private files against the real file system, under a temporary folder.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "system/private_files.h"
#include "test_process.h"

namespace wharfy {
namespace {

using wharfy::testing::TempDir;

mode_t modeOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

std::string contents(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

TEST(PrivateFiles, WritesPrivatelyReplacesLinksAndRefusesLinkedFolders) {
    TempDir dir;
    const std::string file = dir.path() + "/a/b/settings.json";
    ASSERT_TRUE(writePrivateFile(file, "one").ok());
    EXPECT_EQ(contents(file), "one");
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(dir.path() + "/a"), 0700u);
    EXPECT_EQ(modeOf(dir.path() + "/a/b"), 0700u);

    // A link at the path is replaced; what it pointed at is left alone.
    const std::string target = dir.path() + "/target";
    std::ofstream(target) << "keep";
    ASSERT_EQ(::unlink(file.c_str()), 0);
    ASSERT_EQ(::symlink(target.c_str(), file.c_str()), 0);
    ASSERT_TRUE(writePrivateFile(file, "two").ok());
    EXPECT_EQ(contents(target), "keep");
    EXPECT_EQ(contents(file), "two");
    EXPECT_EQ(modeOf(file), 0600u);

    // A folder that is a link is not written through.
    ASSERT_EQ(::symlink(dir.path().c_str(), (dir.path() + "/linked").c_str()), 0);
    auto refused = writePrivateFile(dir.path() + "/linked/x", "no");
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().message(),
              "Could not write " + dir.path() + "/linked (Too many levels of symbolic links).");
    EXPECT_FALSE(readSmallFile(dir.path() + "/x", 100));

    // A folder the user named may be a link, and is never made.
    ASSERT_TRUE(writePrivateFile(dir.path() + "/linked/x", "yes", FolderPolicy::mustExist).ok());
    EXPECT_EQ(contents(dir.path() + "/x"), "yes");
    EXPECT_FALSE(writePrivateFile(dir.path() + "/new/x", "no", FolderPolicy::mustExist).ok());
    size_t entries = 0;
    for (const char* name : {"a", "target", "linked", "x"})
        entries += ::access((dir.path() + "/" + name).c_str(), F_OK) == 0;
    EXPECT_EQ(entries, 4u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 4)
        << "no temporary file is left behind";
}

TEST(PrivateFiles, ReadsOnlySmallRegularFilesNotThroughLinks) {
    TempDir dir;
    const std::string file = dir.path() + "/f";
    std::ofstream(file) << "12345";
    EXPECT_EQ(readSmallFile(file, 5), "12345");
    EXPECT_EQ(readSmallFile(file, 4), std::nullopt);
    ASSERT_EQ(::symlink(file.c_str(), (dir.path() + "/l").c_str()), 0);
    EXPECT_EQ(readSmallFile(dir.path() + "/l", 100), std::nullopt);
    EXPECT_EQ(readSmallFile(dir.path(), 100), std::nullopt);
    EXPECT_EQ(readSmallFile(dir.path() + "/missing", 100), std::nullopt);
}

}  // namespace
}  // namespace wharfy
