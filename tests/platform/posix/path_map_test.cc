#include "platform/posix/path_map.h"

#include <filesystem>
#include <gtest/gtest.h>

using platform::posix::PathMap;

namespace {

class PathMapTest : public testing::Test {
 protected:
  PathMap paths_{"/opt/tools", "/run/volumes"};
};

TEST_F(PathMapTest, translatesTheFolderOfARegisteredVolume) {
  ASSERT_TRUE(paths_.setVolume("STICK", "/media/me/STICK1"));
  EXPECT_EQ(paths_.hostPath("/Volumes/STICK"), "/media/me/STICK1");
  EXPECT_EQ(paths_.hostPath("/Volumes/STICK/a b/c"), "/media/me/STICK1/a b/c");
}

TEST_F(PathMapTest, keepsATrailingSlash) {
  paths_.setVolume("STICK-Backup", "/run/images/1/");
  EXPECT_EQ(paths_.hostPath("/Volumes/STICK-Backup/"), "/run/images/1/");
  EXPECT_EQ(paths_.hostPath("/Volumes/OTHER-Backup/"), "/run/volumes/OTHER-Backup/");
}

TEST_F(PathMapTest, matchesWholeComponentsOnly) {
  paths_.setVolume("STICK", "/media/me/STICK1");
  EXPECT_EQ(paths_.hostPath("/Volumes/STICK-Backup"), "/run/volumes/STICK-Backup");
  EXPECT_EQ(paths_.hostPath("/Volumes/STIC"), "/run/volumes/STIC");
  EXPECT_EQ(paths_.hostPath("/VolumesSTICK"), "/VolumesSTICK");
  EXPECT_EQ(paths_.hostPath("/home/Volumes/STICK"), "/home/Volumes/STICK");
  EXPECT_EQ(paths_.hostPath("/usr/bin/hdiutil2"), "/usr/bin/hdiutil2");
}

TEST_F(PathMapTest, forgetsARemovedVolume) {
  paths_.setVolume("STICK", "/media/me/STICK1");
  paths_.removeVolume("STICK");
  paths_.removeVolume("NEVER");
  EXPECT_EQ(paths_.hostPath("/Volumes/STICK/a"), "/run/volumes/STICK/a");
}

TEST_F(PathMapTest, putsOurToolsInThePlaceOfThePlatformsAndLeavesOthers) {
  EXPECT_EQ(paths_.hostPath("/usr/bin/hdiutil"), "/opt/tools/hdiutil");
  EXPECT_EQ(paths_.hostPath("/usr/sbin/diskutil"), "/opt/tools/diskutil");
  EXPECT_EQ(paths_.hostPath("/usr/bin/rsync"), "/usr/bin/rsync");
  EXPECT_EQ(paths_.hostPath("/bin/rm"), "/bin/rm");
}

TEST_F(PathMapTest, refusesNamesThatAreNoComponent) {
  using namespace std::string_view_literals;
  for (const auto name : {""sv, "."sv, ".."sv, "a/b"sv, "/"sv, "a\nb"sv, "a\0b"sv, "\x7F"sv, "\x1B[2J"sv}) {
    EXPECT_FALSE(paths_.setVolume(name, "/media/x")) << name;
  }
  EXPECT_FALSE(paths_.setVolume("STICK", "media/x"));
  EXPECT_FALSE(paths_.setVolume("STICK", ""));
  EXPECT_EQ(paths_.hostPath("/Volumes/STICK"), "/run/volumes/STICK");
  for (const auto name : {"..."sv, ".a"sv, "a:b"sv, "Ä ö"sv, "-rf"sv})
    EXPECT_TRUE(paths_.setVolume(name, "/media/x"));
}

TEST_F(PathMapTest, leadsNowhereWhereAVolumesNameWouldLeadAway) {
  paths_.setVolume("STICK", "/media/me/STICK1");
  for (const auto* path :
       {"/Volumes", "/Volumes/", "/Volumes/..", "/Volumes/../home/me", "/Volumes/.", "/Volumes//home",
        "/Volumes/STICK/../../home/me", "/Volumes/STICK/..", "/Volumes/a\nb/c"}) {
    EXPECT_EQ(paths_.hostPath(path), PathMap::kNowhere) << path;
  }
  EXPECT_EQ(paths_.hostPath("/Volumes/STICK/..a/b.."), "/media/me/STICK1/..a/b..");
}

TEST_F(PathMapTest, translatesOnlyArgumentsThatAreVolumePaths) {
  paths_.setVolume("STICK", "/media/me/STICK1");
  EXPECT_EQ(paths_.hostArgument("/Volumes/STICK"), "/media/me/STICK1");
  EXPECT_EQ(paths_.hostArgument("--from=/Volumes/STICK"), "--from=/Volumes/STICK");
  EXPECT_EQ(paths_.hostArgument("/usr/bin/hdiutil"), "/usr/bin/hdiutil");
  EXPECT_EQ(paths_.hostArgument("-rf"), "-rf");
}

TEST(PathMap, looksForTheToolsBesideTheProgramsFolder) {
  const auto program = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(PathMap::defaultToolsFolder(), program.parent_path().parent_path() / "libexec/stashwick");
}

}  // namespace
