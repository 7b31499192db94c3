#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "suite/glance_store.h"
#include "suite/suite_settings.h"
#include "test_process.h"

using namespace nemarro::suite;
using wharfy::testing::TempDir;

namespace {

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

mode_t modeOf(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

GlanceRecord sample(SuiteApp app, double at) {
    GlanceRecord r;
    r.app = app;
    r.at = at;
    r.metrics = {{"servers", "Servers", 3.0, "", GlanceLevel::ok}};
    return r;
}

class SuiteStoreLive : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(tmp.path().empty());
        folder = SuiteFolder::at(tmp.path() + "/share/nemarro/suite");
        auto prepared = folder.prepare();
        ASSERT_TRUE(prepared) << prepared.error().message();
    }
    std::string glance(SuiteApp app) const {
        return folder.glancesPath() + "/" + glanceFileName(app);
    }
    TempDir tmp;
    SuiteFolder folder;
};

TEST_F(SuiteStoreLive, PreparesPrivateFoldersAndWritesPrivateFiles) {
    EXPECT_EQ(modeOf(tmp.path() + "/share"), 0700u);
    EXPECT_EQ(modeOf(folder.path), 0700u);
    EXPECT_EQ(modeOf(folder.glancesPath()), 0700u);
    EXPECT_TRUE(folder.prepare()) << "an existing folder is fine";

    GlanceStore store{folder};
    ASSERT_TRUE(store.write(sample(SuiteApp::wharfy, 100)));
    EXPECT_EQ(modeOf(glance(SuiteApp::wharfy)), 0600u);
    EXPECT_EQ(readFile(glance(SuiteApp::wharfy)),
              GlanceCodec::encode(sample(SuiteApp::wharfy, 100)).value());
    ASSERT_TRUE(store.write(sample(SuiteApp::wharfy, 101)));
    EXPECT_EQ(store.read(SuiteApp::wharfy), GlanceReadResult{sample(SuiteApp::wharfy, 101)});
    // Only the record remains: the temporary file was moved over it.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.glancesPath()), {}), 1);

    writeFile(tmp.path() + "/file", "x");
    auto blocked = SuiteFolder::at(tmp.path() + "/file/suite").prepare();
    ASSERT_FALSE(blocked);
    EXPECT_EQ(blocked.error().error, ENOTDIR);
    EXPECT_EQ(blocked.error().message(),
              "Could not create the folder " + tmp.path() + "/file: Not a directory.");
}

TEST_F(SuiteStoreLive, WritingReplacesALinkInsteadOfFollowingIt) {
    const std::string elsewhere = tmp.path() + "/elsewhere";
    writeFile(elsewhere, "untouched");
    ASSERT_EQ(::symlink(elsewhere.c_str(), glance(SuiteApp::wharfy).c_str()), 0);
    ASSERT_TRUE(GlanceStore{folder}.write(sample(SuiteApp::wharfy, 100)));
    EXPECT_EQ(readFile(elsewhere), "untouched");
    EXPECT_EQ(GlanceStore{folder}.read(SuiteApp::wharfy),
              GlanceReadResult{sample(SuiteApp::wharfy, 100)});

    // A suite folder kept elsewhere behind a link is the user's choice and works.
    const SuiteFolder linked = SuiteFolder::at(tmp.path() + "/linked");
    ASSERT_EQ(::symlink(folder.path.c_str(), linked.path.c_str()), 0);
    EXPECT_TRUE(GlanceStore{linked}.write(sample(SuiteApp::wharfy, 101)));

    ASSERT_EQ(::rename(folder.glancesPath().c_str(), (folder.path + "/real").c_str()), 0);
    ASSERT_EQ(::symlink((folder.path + "/real").c_str(), folder.glancesPath().c_str()), 0);
    EXPECT_FALSE(GlanceStore{folder}.write(sample(SuiteApp::wharfy, 102)))
        << "a planted glances link is not followed";
    EXPECT_EQ(GlanceStore{folder}.read(SuiteApp::wharfy),
              GlanceReadResult{sample(SuiteApp::wharfy, 101)});
}

TEST_F(SuiteStoreLive, RefusesWhatIsNotThisUsersPlainFile) {
    GlanceStore store{folder};
    ASSERT_EQ(::symlink((tmp.path() + "/target").c_str(), glance(SuiteApp::varnel).c_str()), 0);
    writeFile(tmp.path() + "/target", GlanceCodec::encode(sample(SuiteApp::varnel, 1)).value());
    ASSERT_EQ(::mkdir(glance(SuiteApp::kobble).c_str(), 0700), 0);
    ASSERT_EQ(::mkfifo(glance(SuiteApp::lintra).c_str(), 0600), 0);
    writeFile(glance(SuiteApp::wharfy), std::string(2049, ' '));
    writeFile(glance(SuiteApp::tessik), GlanceCodec::encode(sample(SuiteApp::tessik, 5)).value());
    bool otherUser = false;
    if (::geteuid() == 0) {
        writeFile(glance(SuiteApp::quosset),
                  GlanceCodec::encode(sample(SuiteApp::quosset, 1)).value());
        otherUser = ::chown(glance(SuiteApp::quosset).c_str(), 65534, 65534) == 0;
    }

    std::map<SuiteApp, GlanceReadResult> expected = {
        {SuiteApp::varnel, GlanceInvalid{"unreadable (errno " + std::to_string(ELOOP) + ")"}},
        {SuiteApp::kobble, GlanceInvalid{"not a regular file"}},
        {SuiteApp::lintra, GlanceInvalid{"not a regular file"}},
        {SuiteApp::wharfy, GlanceInvalid{"size: at most 2,048 bytes"}},
        {SuiteApp::tessik, sample(SuiteApp::tessik, 5)},
    };
    if (otherUser) expected[SuiteApp::quosset] = GlanceInvalid{"not owned by this user"};
    EXPECT_EQ(store.readAll(), expected) << "mirrow has no file and so no entry";
    if (!otherUser) GTEST_SKIP() << "another user's file needs root to chown it";
}

TEST_F(SuiteStoreLive, SafeReadStopsAtTheLimit) {
    const std::string big = tmp.path() + "/big";
    writeFile(big, std::string(10 * 4096 + 7, 'x'));
    auto read = safeRead(big, GlanceStore::kReadLimit);
    ASSERT_TRUE(std::holds_alternative<SafeReadData>(read));
    EXPECT_EQ(std::get<SafeReadData>(read).bytes.size(), GlanceStore::kReadLimit);
    EXPECT_EQ(safeRead(tmp.path() + "/none", 10), SafeRead{SafeReadMissing{}});
}

TEST_F(SuiteStoreLive, SettingsSurviveARewrite) {
    EXPECT_EQ(SuiteSettings::read(folder), SuiteSettings{}) << "no file: defaults";
    writeFile(folder.settingsPath(), R"({"floatingTopLeft":[1,2,3],"other":{"k":"v"}})");
    SuiteSettings settings = SuiteSettings::read(folder);
    settings.floatingVisible = true;
    ASSERT_TRUE(settings.write(folder));
    EXPECT_EQ(modeOf(folder.settingsPath()), 0600u);
    EXPECT_EQ(readFile(folder.settingsPath()),
              R"({"floatingExpanded":false,"floatingTopLeft":[1,2,3],"floatingVisible":true,)"
              R"("other":{"k":"v"}})");
    EXPECT_EQ(SuiteSettings::read(folder), settings);

    writeFile(folder.settingsPath(), "{\"other\":\"" + std::string(70000, 'x') + "\"}");
    EXPECT_EQ(SuiteSettings::read(folder), SuiteSettings{}) << "read only up to 65,536 bytes";
}

}  // namespace
