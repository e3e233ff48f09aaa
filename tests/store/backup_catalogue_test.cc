// The store's folders, and the backups that are found there.

#include <filesystem>

#include "tests/store/catalogue_test.h"

namespace tests::store {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

using BackupFolder = CatalogueTest;
using BackupCount = CatalogueTest;
using BackupList = CatalogueTest;

TEST_F(BackupFolder, ofNoVolumeIsTheSupportRootAndIsNotMade) {
  EXPECT_EQ(catalogue.backupDirectory(), world.applicationSupport() + "/Stashwick 3");
  EXPECT_FALSE(world.files.fileExists(kStore));
}

TEST_F(BackupFolder, ofAVolumeIsMadeOnFirstUseWithTheSupportRoot) {
  EXPECT_EQ(catalogue.backupDirectoryForVolume("MYSTICK"),
            world.applicationSupport() + "/Stashwick 3/MYSTICK");
  EXPECT_TRUE(std::filesystem::is_directory(world.files.realPath(folderOf("MYSTICK"))));
}

TEST_F(BackupFolder, staysWithItsContentsWhenItIsThere) {
  writeImage("a.dmg");
  EXPECT_EQ(catalogue.backupDirectoryForVolume("MYSTICK"), folderOf("MYSTICK"));
  EXPECT_EQ(world.files.read(inStick("a.dmg")), "image");
}

TEST_F(BackupFolder, bearsTheVolumesNameAsItIs) {
  for (const std::string name : {"My Stick", "UPPER lower", "a.b", "%41", "Caf\u00e9"}) {
    EXPECT_EQ(catalogue.backupDirectoryForVolume(name), folderOf(name));
    EXPECT_TRUE(world.files.fileExists(folderOf(name))) << name;
  }
}

TEST_F(BackupFolder, namesAreToldApartByCase) {
  catalogue.backupDirectoryForVolume("STICK");
  catalogue.backupDirectoryForVolume("stick");
  EXPECT_THAT(std::vector<std::filesystem::path>(
                  std::filesystem::directory_iterator(world.files.realPath(kStore)), {}),
              SizeIs(2));
}

TEST_F(BackupFolder, whereAPlainFileStandsIsItsPathAndTheFileStays) {
  world.files.write(folderOf("MYSTICK"), "a plain file");
  EXPECT_EQ(catalogue.backupDirectoryForVolume("MYSTICK"), folderOf("MYSTICK"));
  EXPECT_EQ(world.files.read(folderOf("MYSTICK")), "a plain file");
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(backups(), IsEmpty());
}

TEST_F(BackupFolder, thatCannotBeMadeStillHasItsPathAndHoldsNoBackups) {
  world.files.write(kStore, "a plain file");
  EXPECT_EQ(catalogue.backupDirectoryForVolume("MYSTICK"), folderOf("MYSTICK"));
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(backups(), IsEmpty());
  EXPECT_EQ(catalogue.lastBackupDate(), std::nullopt);
  EXPECT_EQ(world.files.read(kStore), "a plain file");
}

TEST_F(BackupFolder, isMadeByTheQueriesToo) {
  catalogue.numberOfBackupsForVolume("COUNTED");
  catalogue.backupsForVolume("LISTED");
  EXPECT_TRUE(world.files.fileExists(folderOf("COUNTED")));
  EXPECT_TRUE(world.files.fileExists(folderOf("LISTED")));
}

TEST_F(BackupCount, isZeroForAVolumeWithoutBackups) { EXPECT_EQ(count(), 0); }

TEST_F(BackupCount, takesRegularFilesWithTheVeryExtensionDmgOnly) {
  for (const char* name :
       {"a.dmg", "b.DMG", "c.manifest", "dmg", ".dmg", "e.dmg.part", "f.dmgx", "g.Dmg", "hdmg"})
    writeImage(name);
  world.files.createDirectory(inStick("d.dmg"));
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(paths(), ElementsAre(inStick("a.dmg")));
}

TEST_F(BackupCount, leavesOutLinksToImages) {
  writeImage("a.dmg");
  std::filesystem::create_symlink("a.dmg", world.files.realPath(inStick("b.dmg")));
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(paths(), ElementsAre(inStick("a.dmg")));
}

TEST_F(BackupCount, takesHiddenImagesAndThoseInSubFoldersAndPackages) {
  for (const char* name : {"a.dmg", ".hidden.dmg", "sub/b.dmg", ".sub/c.dmg", "d.dmg/e.dmg"})
    writeImage(name);
  EXPECT_EQ(count(), 5);
  EXPECT_THAT(backups(), SizeIs(5));
}

TEST_F(BackupCount, takesTheBaseNameAsItIs) {
  for (const char* name : {"Nov 15, 2026, 14:05:09.dmg", "x.y.dmg", " .dmg"}) writeImage(name);
  EXPECT_EQ(count(), 3);
}

TEST_F(BackupCount, isOfTheOneVolumeAndReadsTheFolderAnew) {
  world.files.write(folderOf("OTHER") + "/x.dmg", "image");
  EXPECT_EQ(count(), 0);
  writeImage("a.dmg");
  EXPECT_EQ(count(), 1);
  world.files.remove(inStick("a.dmg"));
  EXPECT_EQ(count(), 0);
}

TEST_F(BackupList, isEmptyForAVolumeWithoutBackups) { EXPECT_THAT(backups(), IsEmpty()); }

TEST_F(BackupList, goesFromTheOldestToTheNewest) {
  writeImage("a.dmg", day(3));
  writeImage("b.dmg", day(1));
  writeImage("c.dmg", day(2));
  EXPECT_THAT(paths(), ElementsAre(inStick("b.dmg"), inStick("c.dmg"), inStick("a.dmg")));
  EXPECT_EQ(backups().front()->backupDate(), day(1));
  EXPECT_EQ(backups().back()->backupDate(), day(3));
}

TEST_F(BackupList, goesByTheCreationDateAndNotTheModificationDate) {
  writeImage("created first.dmg", day(1));
  world.files.setModificationDate(inStick("created first.dmg"), day(9));
  writeImage("created last.dmg", day(3));
  world.files.setModificationDate(inStick("created last.dmg"), day(4));
  EXPECT_THAT(paths(), ElementsAre(inStick("created first.dmg"), inStick("created last.dmg")));
  EXPECT_EQ(backups().front()->backupDate(), day(1));
}

TEST_F(BackupList, holdsImagesOfOneCreationDateAll) {
  for (const char* name : {"a.dmg", "b.dmg", "c.dmg"}) writeImage(name, day(5));
  EXPECT_THAT(paths(), UnorderedElementsAre(inStick("a.dmg"), inStick("b.dmg"), inStick("c.dmg")));
}

TEST_F(BackupList, isNewForEachCall) {
  writeImage("a.dmg");
  const auto before = backups();
  writeImage("b.dmg");
  EXPECT_THAT(before, SizeIs(1));
  EXPECT_THAT(backups(), SizeIs(2));
}

TEST_F(BackupList, recordNamesTheVolumeAndNotTheImage) {
  writeImage("a.dmg");
  EXPECT_EQ(backup()->device(), "MYSTICK");
  EXPECT_EQ(backup()->path(), inStick("a.dmg"));
}

TEST_F(BackupList, recordHasTheSizeOfTheImageInSinglePrecision) {
  writeImage("a.dmg", day(1), "ten bytes.");
  EXPECT_EQ(backup()->size(), 10.0F);
  std::filesystem::resize_file(world.files.realPath(inStick("a.dmg")), 1'500'000'001);
  EXPECT_EQ(backup()->size(), 1'500'000'000.0F);
}

TEST_F(BackupList, imageInASubFolderIsGivenThePathThatItWouldHaveAtTheTop) {
  writeImage("sub/x.dmg", day(1), "in the sub-folder");
  EXPECT_EQ(backup()->path(), inStick("x.dmg"));
  EXPECT_EQ(backup()->size(), 17.0F);
}

TEST_F(BackupList, imageInASubFolderIsGivenTheManifestAtTheTop) {
  writeImage("sub/x.dmg");
  world.files.createDirectory(inStick("sub"));
  writeManifest("sub/x.manifest", "AES-256");
  EXPECT_FALSE(backup()->encrypted());
  EXPECT_EQ(backup()->files(), nullptr);
  writeManifest("x.manifest", "AES-256");
  EXPECT_TRUE(backup()->encrypted());
  EXPECT_THAT(filesOf(*backup()), ElementsAre("/Volumes/MYSTICK/a", "/Volumes/MYSTICK/b"));
}

TEST_F(BackupList, volumesOfOneNameShareOneCatalogue) {
  catalogue.backupDirectoryForVolume("MYSTICK");
  writeImage("first disk.dmg", day(1));
  writeImage("second disk.dmg", day(2));
  EXPECT_THAT(BackupCatalogue(world.host()).backupsForVolume("MYSTICK"), SizeIs(2));
}

}  // namespace
}  // namespace tests::store
