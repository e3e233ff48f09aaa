#include "platform/posix/directory_bundle.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"

using platform::posix::DirectoryBundle;

namespace {

class DirectoryBundleTest : public testing::Test {
 protected:
  DirectoryBundleTest() {
    for (const auto* language : {"en", "de", "pt", "zh-Hans"}) addTable(language, language);
  }
  void addTable(const std::string& language, const std::string& text) {
    folder_.write(
        language + ".lproj/Localizable.strings",
        "<plist version=\"1.0\"><dict><key>Later</key><string>" + text + "</string></dict></plist>");
  }
  std::string tableFor(std::vector<std::string> languages) {
    return DirectoryBundle(folder_.path(), std::move(languages), log_).localizedString("Later");
  }

  TemporaryFolder folder_;
  RecordingLog log_;
};

TEST_F(DirectoryBundleTest, findsItsResources) {
  folder_.write("Alert.wav", "");
  folder_.write("README", "");
  DirectoryBundle bundle(folder_.path(), {"en"}, log_);
  EXPECT_EQ(bundle.pathForResource("Alert", "wav"), folder_ / "Alert.wav");
  EXPECT_EQ(bundle.pathForResource("README", ""), folder_ / "README");
  EXPECT_EQ(bundle.pathForResource("Alert", "ogg"), std::nullopt);
}

TEST_F(DirectoryBundleTest, picksTheTableOfTheMostWantedLanguageThatHasOne) {
  EXPECT_EQ(tableFor({"de"}), "de");
  EXPECT_EQ(tableFor({"de-AT", "pt"}), "de");
  EXPECT_EQ(tableFor({"nb-NO", "pt-BR", "de"}), "pt");
  EXPECT_EQ(tableFor({"nb-NO"}), "en");
  EXPECT_EQ(tableFor({}), "en");
}

TEST_F(DirectoryBundleTest, prefersTheWholeTagToItsLanguage) {
  addTable("pt-BR", "pt-BR");
  EXPECT_EQ(tableFor({"pt-BR"}), "pt-BR");
  EXPECT_EQ(tableFor({"pt-PT"}), "pt");
}

TEST_F(DirectoryBundleTest, findsTheScriptThatARegionWrites) {
  for (const auto* tag : {"zh", "zh-CN", "zh-SG", "zh-Hans-CN", "zh-Hans"})
    EXPECT_EQ(tableFor({tag}), "zh-Hans") << tag;
  EXPECT_EQ(tableFor({"zh-TW", "de"}), "de");
  addTable("zh-Hant", "zh-Hant");
  EXPECT_EQ(tableFor({"zh-TW", "de"}), "zh-Hant");
}

TEST_F(DirectoryBundleTest, givesTheKeyWithoutATable) {
  DirectoryBundle bundle(folder_ / "missing", {"de"}, log_);
  EXPECT_EQ(bundle.localizedString("Later"), "Later");
  EXPECT_THAT(log_.lines(), testing::IsEmpty());
}

TEST_F(DirectoryBundleTest, passesADamagedTableOverAndSaysSo) {
  folder_.write("de.lproj/Localizable.strings", "\"Later\" = ;");
  EXPECT_EQ(tableFor({"de"}), "en");
  EXPECT_THAT(log_.lines(), testing::ElementsAre(testing::HasSubstr("de.lproj/Localizable.strings")));
}

TEST_F(DirectoryBundleTest, readsItsTableOnce) {
  DirectoryBundle bundle(folder_.path(), {"de"}, log_);
  EXPECT_EQ(bundle.localizedString("Later"), "de");
  std::filesystem::remove_all(folder_ / "de.lproj");
  EXPECT_EQ(bundle.localizedString("Later"), "de");
}

TEST(DirectoryBundle, looksForResourcesBesideTheProgramsFolder) {
  const auto program = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(DirectoryBundle::defaultFolder(), program.parent_path().parent_path() / "share/stashwick");
}

}  // namespace
