// What a backup's manifest tells of it, and manifests that tell nothing.

#include <memory>

#include "base/binary_property_list.h"
#include "tests/store/catalogue_test.h"

namespace tests::store {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// Bytes that count how many of them are read.
class CountedBytes : public base::RandomAccess {
 public:
  CountedBytes(std::vector<std::byte> bytes, std::uint64_t& read) : bytes_(std::move(bytes)), read_(read) {}
  std::uint64_t size() const override { return bytes_.size(); }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    read_ += into.size();
    return bytes_.read(offset, into);
  }

 private:
  base::MemoryRandomAccess bytes_;
  std::uint64_t& read_;
};

// The world's archives, with the bytes counted that are read of keyed ones.
class CountingArchives : public platform::fake::Archives {
 public:
  explicit CountingArchives(platform::fake::World& world)
      : Archives(world.files, world.log), files_(world.files) {}

  std::optional<base::KeyedDecoder> unarchiveObjectWithFile(const std::string& path) override {
    ++opened;
    return base::unarchivedRoot(std::make_shared<CountedBytes>(bytesOf(files_.read(path).value()), bytesRead))
        .value();
  }

  int opened = 0;
  std::uint64_t bytesRead = 0;

 private:
  platform::fake::Files& files_;
};

// Says what an operation says, under another class's name.
class LookAlike : public base::Codable {
 public:
  explicit LookAlike(std::shared_ptr<ZQStashwickQueryResult> scan) : scan_(std::move(scan)) {}
  std::string_view className() const override { return "ZQStashwickSomething"; }
  void encodeWithCoder(base::KeyedEncoder& coder) const override {
    coder.encodeString("encryption", "AES-256");
    coder.encodeObject("result", scan_.get());
  }

 private:
  std::shared_ptr<ZQStashwickQueryResult> scan_;
};

class Manifest : public CatalogueTest {
 protected:
  Manifest() { writeImage("x.dmg"); }

  void expectNoManifest() {
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(backup()->path(), inStick("x.dmg"));
    EXPECT_FALSE(backup()->encrypted());
    EXPECT_EQ(backup()->files(), nullptr);
  }
};

TEST_F(Manifest, tellsTheFilesOfABackup) {
  writeManifest("x.manifest");
  EXPECT_THAT(filesOf(*backup()), ElementsAre("/Volumes/MYSTICK/a", "/Volumes/MYSTICK/b"));
}

TEST_F(Manifest, withAnEncryptionMethodMakesTheBackupEncrypted) {
  writeManifest("x.manifest", "AES-256");
  EXPECT_TRUE(backup()->encrypted());
}

TEST_F(Manifest, withAnEmptyEncryptionMethodMakesTheBackupEncryptedToo) {
  writeManifest("x.manifest", "");
  EXPECT_TRUE(backup()->encrypted());
}

TEST_F(Manifest, withoutAnEncryptionMethodLeavesTheBackupUnencrypted) {
  writeManifest("x.manifest", std::nullopt);
  EXPECT_FALSE(backup()->encrypted());
  EXPECT_NE(backup()->files(), nullptr);
}

TEST_F(Manifest, withoutAScanRecordLeavesTheBackupWithoutFiles) {
  ZQStashwickOperation operation;
  operation.setEncryption("AES-256");
  archive(operation, "x.manifest");
  EXPECT_TRUE(backup()->encrypted());
  EXPECT_EQ(backup()->files(), nullptr);
}

TEST_F(Manifest, ofAnEmptyVolumeTellsAnEmptyListAndNotNone) {
  world.files.addVolume("MYSTICK");
  ZQStashwickOperation operation;
  operation.setResult(scan({}));
  archive(operation, "x.manifest");
  ASSERT_NE(backup()->files(), nullptr);
  EXPECT_THAT(*backup()->files(), IsEmpty());
}

TEST_F(Manifest, belongsToTheImageOfItsBaseNameOnly) {
  writeManifest("y.manifest", "AES-256");
  writeManifest("x.dmg.manifest", "AES-256");
  writeManifest("X.manifest", "AES-256");
  expectNoManifest();
}

TEST_F(Manifest, pairsByTheWholeBaseNameWithItsFullStops) {
  world.files.remove(inStick("x.dmg"));
  writeImage("Nov. 15, 14.05.09.dmg");
  writeManifest("Nov. 15, 14.05.09.manifest", "AES-256");
  EXPECT_TRUE(backup()->encrypted());
}

TEST_F(Manifest, nameWithAPercentSignIsTakenAsItIs) {
  world.files.remove(inStick("x.dmg"));
  writeImage("100%@.dmg");
  writeManifest("100%@.manifest", "AES-256");
  EXPECT_TRUE(backup()->encrypted());
}

TEST_F(Manifest, thatIsMissingMeansNotEncryptedAndNoFiles) {
  expectNoManifest();
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(Manifest, thatIsEmptyReadsAsMissing) {
  breakManifest("x.manifest", "");
  expectNoManifest();
}

TEST_F(Manifest, thatIsGarbageReadsAsMissingAndIsSaidInTheLog) {
  breakManifest("x.manifest", std::string("\0\xff garbage \x01", 12));
  expectNoManifest();
  EXPECT_THAT(world.log.lines(), ::testing::Contains(HasSubstr(inStick("x.manifest"))));
}

TEST_F(Manifest, thatIsTruncatedReadsAsMissingWhereverItEnds) {
  writeManifest("x.manifest", "AES-256");
  const auto whole = world.files.read(inStick("x.manifest")).value();
  for (const std::size_t size : {std::size_t{8}, whole.size() / 2, whole.size() - 33, whole.size() - 1}) {
    breakManifest("x.manifest", whole.substr(0, size));
    expectNoManifest();
  }
}

TEST_F(Manifest, thatIsAFolderReadsAsMissing) {
  world.files.createDirectory(inStick("x.manifest"));
  expectNoManifest();
}

TEST_F(Manifest, ofAnotherClassReadsAsMissing) {
  archive(*scan({"a"}), "x.manifest");
  expectNoManifest();
  archive(LookAlike(scan({"a"})), "x.manifest");
  expectNoManifest();
}

TEST_F(Manifest, thatIsADictionaryPropertyListReadsAsMissing) {
  const base::PropertyList::Dictionary dictionary{{"encryption", "AES-256"}};
  ASSERT_TRUE(world.archives.writeDictionary(dictionary, inStick("x.manifest")));
  expectNoManifest();
  breakManifest("x.manifest", textOf(base::writeBinaryPropertyList(dictionary)));
  expectNoManifest();
}

TEST_F(Manifest, thatIsDamagedDoesNotHideOtherBackups) {
  breakManifest("x.manifest", "garbage");
  writeImage("y.dmg", day(2));
  writeManifest("y.manifest", "AES-256");
  const auto all = backups();
  ASSERT_THAT(all, SizeIs(2));
  EXPECT_FALSE(all[0]->encrypted());
  EXPECT_TRUE(all[1]->encrypted());
}

TEST_F(Manifest, withADamagedListLeavesTheBackupListedWithoutFiles) {
  writeManifest("x.manifest", "AES-256");
  const auto whole = world.files.read(inStick("x.manifest")).value();
  const auto damaged = withDamagedURL(whole, "/Volumes/MYSTICK/a");
  ASSERT_NE(damaged, whole);
  breakManifest("x.manifest", damaged);
  EXPECT_TRUE(backup()->encrypted());
  EXPECT_EQ(backup()->files(), nullptr);
}

TEST_F(Manifest, listOfFilesIsReadOnlyWhenItIsAskedFor) {
  std::vector<std::string> names;
  for (int i = 0; i < 2000; ++i) names.push_back("file " + std::to_string(i));
  ZQStashwickOperation operation;
  operation.setResult(scan(names));
  archive(operation, "x.manifest");
  CountingArchives archives(world);
  ports::Host host = {world.host().disks,
                      world.host().keychain,
                      world.host().desktop,
                      world.host().tools,
                      world.host().mainQueue,
                      world.host().files,
                      archives,
                      world.host().defaults,
                      world.host().bundle,
                      world.host().dates,
                      world.host().user,
                      world.host().log,
                      world.host().notifications};
  const auto all = BackupCatalogue(host).backupsForVolume("MYSTICK");
  ASSERT_THAT(all, SizeIs(1));
  const auto size = world.files.fileSize(inStick("x.manifest")).value();
  EXPECT_GT(archives.opened, 0);
  EXPECT_LT(archives.bytesRead, size / 2);
  EXPECT_THAT(*all[0]->files(), SizeIs(2000));
  EXPECT_GT(archives.bytesRead, size / 2);
}

TEST_F(Manifest, thatIsGoneWhenTheFilesAreAskedForLeavesNone) {
  writeManifest("x.manifest");
  const auto record = backup();
  world.files.remove(inStick("x.manifest"));
  EXPECT_EQ(record->files(), nullptr);
}

}  // namespace
}  // namespace tests::store
