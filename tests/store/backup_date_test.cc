// The date of the last backup, and how dates read in the menus.

#include <filesystem>
#include <stdexcept>

#include "tests/store/catalogue_test.h"

namespace tests::store {
namespace {

class LastBackupDate : public CatalogueTest {
 protected:
  // A folder of the store that was changed last at that moment.
  void makeFolder(const std::string& name, base::Date changed) {
    ASSERT_TRUE(world.files.createDirectory(folderOf(name)));
    world.files.setModificationDate(folderOf(name), changed);
  }
};

class BackupDateText : public CatalogueTest {
 protected:
  std::string textOf(const std::string& shortText) {
    world.dates.shortDatesReadAs([shortText](base::Date) { return shortText; });
    return catalogue.stringFromBackupDate(day(1));
  }
};

TEST_F(LastBackupDate, isNoneWithoutAStoreAndMakesNone) {
  EXPECT_EQ(catalogue.lastBackupDate(), std::nullopt);
  EXPECT_FALSE(world.files.fileExists(kStore));
}

TEST_F(LastBackupDate, isNoneInAStoreWithoutFolders) {
  world.files.write(std::string(kStore) + "/StashwickHelper.plist", "a list");
  EXPECT_EQ(catalogue.lastBackupDate(), std::nullopt);
}

TEST_F(LastBackupDate, isTheLastChangeOfTheNewestVolumeFolder) {
  makeFolder("A", day(1));
  makeFolder("B", day(5));
  makeFolder("C", day(3));
  EXPECT_EQ(catalogue.lastBackupDate(), day(5));
}

TEST_F(LastBackupDate, isTheSameWhicheverFolderComesFirst) {
  makeFolder("A", day(5));
  makeFolder("B", day(1));
  EXPECT_EQ(catalogue.lastBackupDate(), day(5));
}

TEST_F(LastBackupDate, looksAtFoldersOnlyAndNotAtTheFilesInThem) {
  writeImage("a.dmg");
  writeImage("a.manifest");
  world.files.setModificationDate(inStick("a.dmg"), day(9));
  world.files.setModificationDate(inStick("a.manifest"), day(9));
  makeFolder("MYSTICK", day(2));
  EXPECT_EQ(catalogue.lastBackupDate(), day(2));
}

TEST_F(LastBackupDate, looksAtSubFoldersAndHiddenOnesToo) {
  makeFolder("MYSTICK/.hidden/deep", day(7));
  makeFolder("MYSTICK/.hidden", day(2));
  makeFolder("MYSTICK", day(1));
  EXPECT_EQ(catalogue.lastBackupDate(), day(7));
}

TEST_F(LastBackupDate, takesNoNoticeOfTheSupportRootItself) {
  makeFolder("MYSTICK", day(1));
  world.files.setModificationDate(kStore, day(9));
  EXPECT_EQ(catalogue.lastBackupDate(), day(1));
}

TEST_F(LastBackupDate, takesNoNoticeOfALinkToAFolder) {
  makeFolder("MYSTICK", day(1));
  std::filesystem::create_directory_symlink("MYSTICK", world.files.realPath(folderOf("LINK")));
  world.files.setModificationDate(folderOf("LINK"), day(9));
  EXPECT_EQ(catalogue.lastBackupDate(), day(1));
}

TEST_F(LastBackupDate, mayLieBeforeTheReferenceDate) {
  makeFolder("MYSTICK", day(-3));
  EXPECT_EQ(catalogue.lastBackupDate(), day(-3));
}

TEST_F(LastBackupDate, movesWithANewImage) {
  makeFolder("MYSTICK", day(1));
  writeImage("a.dmg");
  EXPECT_GT(catalogue.lastBackupDate(), day(1));
}

TEST_F(BackupDateText, joinsTheDayAndTheTime) { EXPECT_EQ(textOf("Today 09:30"), "Today at 09:30"); }

TEST_F(BackupDateText, isOfTheGivenMoment) {
  const auto now = world.dates.now();
  EXPECT_EQ(catalogue.stringFromBackupDate(now), "Today at 14:05");
  EXPECT_EQ(catalogue.stringFromBackupDate({now.secondsSinceReferenceDate - 86400}), "Yesterday at 14:05");
  EXPECT_EQ(catalogue.stringFromBackupDate({now.secondsSinceReferenceDate - 2 * 86400}), "11/13/26 at 14:05");
}

TEST_F(BackupDateText, ofAnotherDayIsItsShortDate) {
  EXPECT_EQ(textOf("15.11.26 14:05"), "15.11.26 at 14:05");
}

TEST_F(BackupDateText, hasTheFirstTwoWordsOnly) {
  EXPECT_EQ(textOf("11/15/26, 2:05 PM"), "11/15/26, at 2:05");
}

TEST_F(BackupDateText, isSplitAtEverySingleBlankAndAtNothingElse) {
  EXPECT_EQ(textOf("Today  14:05"), "Today at ");
  EXPECT_EQ(textOf(" Today 14:05"), " at Today");
  EXPECT_EQ(textOf("Today\u00a0x 2:05\u202fPM"), "Today\u00a0x at 2:05\u202fPM");
  EXPECT_EQ(textOf("Today\tx\ny 14:05"), "Today\tx\ny at 14:05");
  EXPECT_EQ(textOf("Today "), "Today at ");
}

TEST_F(BackupDateText, joiningWordComesFromTheStringTable) {
  world.bundle.setLocalizedString("%@ at %@", "%@ um %@");
  EXPECT_EQ(textOf("Heute 14:05"), "Heute um 14:05");
}

TEST_F(BackupDateText, wordsWithPercentSignsAreTakenAsTheyAre) { EXPECT_EQ(textOf("%@ %li"), "%@ at %li"); }

TEST_F(BackupDateText, ofOneWordIsOutOfRange) {
  EXPECT_THROW(textOf("Today"), std::out_of_range);
  EXPECT_THROW(textOf(""), std::out_of_range);
}

}  // namespace
}  // namespace tests::store
