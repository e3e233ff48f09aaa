#include "platform/posix/file_user_defaults.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"

using base::PropertyList;
using platform::posix::FileUserDefaults;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

std::string settings(const std::string& entries) {
  return "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>";
}

class FileUserDefaultsTest : public testing::Test {
 protected:
  TemporaryFolder folder_;
  RecordingLog log_;
  FileUserDefaults defaults_{log_, folder_ / "config/stashwick/settings.plist"};
};

TEST_F(FileUserDefaultsTest, storesForThisUserOnly) {
  defaults_.setBool(true, "ZQCreatesAutomaticBackups");
  EXPECT_TRUE(FileUserDefaults(log_, folder_ / "config/stashwick/settings.plist")
                  .boolForKey("ZQCreatesAutomaticBackups"));
  struct stat item {};
  ASSERT_EQ(::stat((folder_ / "config/stashwick").c_str(), &item), 0);
  EXPECT_EQ(item.st_mode & 07777, 0700u);
  ASSERT_EQ(::stat((folder_ / "config/stashwick/settings.plist").c_str(), &item), 0);
  EXPECT_EQ(item.st_mode & 07777, 0600u);
}

TEST_F(FileUserDefaultsTest, writesNothingUnlessASettingIsSet) {
  defaults_.registerDefaults(PropertyList::Dictionary{{"A", true}});
  EXPECT_TRUE(defaults_.boolForKey("A"));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "config"));
}

TEST_F(FileUserDefaultsTest, seesWhatAnotherProgramWritesAndRemoves) {
  defaults_.registerDefaults(PropertyList::Dictionary{{"method", "AES-128"}});
  EXPECT_EQ(defaults_.stringForKey("method"), "AES-128");
  folder_.write("config/stashwick/settings.plist", settings("<key>method</key><string>AES-256</string>"));
  EXPECT_EQ(defaults_.stringForKey("method"), "AES-256");
  std::filesystem::remove(folder_ / "config/stashwick/settings.plist");
  EXPECT_EQ(defaults_.stringForKey("method"), "AES-128");
}

TEST_F(FileUserDefaultsTest, keepsSettingsThatItDoesNotKnowWhenItWrites) {
  folder_.write("config/stashwick/settings.plist",
                settings("<key>mine</key><array><integer>1</integer></array>"));
  defaults_.setBool(true, "A");
  EXPECT_THAT(folder_.read("config/stashwick/settings.plist"), HasSubstr("<key>mine</key>"));
}

TEST_F(FileUserDefaultsTest, readsNumbersAsTexts) {
  folder_.write("config/stashwick/settings.plist",
                settings("<key>r</key><real>0.5</real><key>b</key><true/>"));
  EXPECT_EQ(defaults_.stringForKey("r"), "0.5");
  EXPECT_EQ(defaults_.stringForKey("b"), "1");
}

TEST_F(FileUserDefaultsTest, holdsToTheRegisteredValuesWhileItsFileIsDamaged) {
  folder_.write("config/stashwick/settings.plist", "rubbish");
  defaults_.registerDefaults(PropertyList::Dictionary{{"A", true}});
  EXPECT_TRUE(defaults_.boolForKey("A"));
  EXPECT_TRUE(defaults_.boolForKey("A"));
  EXPECT_EQ(folder_.read("config/stashwick/settings.plist"), "rubbish");
  EXPECT_THAT(log_.lines(), ElementsAre(HasSubstr("settings.plist: ")));
}

TEST_F(FileUserDefaultsTest, keepsADamagedFileBesideTheNewOne) {
  folder_.write("config/stashwick/settings.plist", "rubbish");
  defaults_.setBool(true, "A");
  EXPECT_TRUE(defaults_.boolForKey("A"));
  EXPECT_EQ(folder_.read("config/stashwick/settings.plist.damaged"), "rubbish");
}

TEST_F(FileUserDefaultsTest, holdsASettingThatCannotBeStored) {
  folder_.write("config", "a file in the way");
  defaults_.setBool(true, "A");
  EXPECT_TRUE(defaults_.boolForKey("A"));
}

}  // namespace
