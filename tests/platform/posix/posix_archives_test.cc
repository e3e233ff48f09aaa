#include "platform/posix/posix_archives.h"

#include <ctime>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "base/binary_property_list.h"
#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"

using base::PropertyList;
using platform::posix::PathMap;
using platform::posix::PosixArchives;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr auto kList =
    R"(<?xml version="1.0"?><plist version="1.0"><dict><key>A</key><integer>-1</integer></dict></plist>)";

class Manifest : public base::Codable {
 public:
  explicit Manifest(std::size_t files = 3) {
    for (std::size_t i = 0; i < files; ++i) {
      files_.push_back({"/Volumes/STICK/photographs/summer/image-" + std::to_string(i) + ".jpeg", false});
    }
  }
  std::string_view className() const override { return "Manifest"; }
  void encodeWithCoder(base::KeyedEncoder& coder) const override {
    coder.encodeString("format", "HFS+");
    coder.encodeURLs("files", files_);
    coder.encodeBool("ready", true);
  }

 private:
  std::vector<base::FileURL> files_;
};

class PosixArchivesTest : public testing::Test {
 protected:
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(folder_.path()))
      names.push_back(item.path().filename());
    std::ranges::sort(names);
    return names;
  }

  TemporaryFolder folder_;
  PathMap paths_{"/opt/tools", "/nonexistent"};
  RecordingLog log_;
  PosixArchives archives_{paths_, log_};
};

TEST_F(PosixArchivesTest, writesADictionaryThatReadsBack) {
  const PropertyList::Dictionary dictionary{{"UUID-1", 1}, {"UUID-2", -1}};
  ASSERT_TRUE(archives_.writeDictionary(dictionary, folder_ / "list.plist"));
  EXPECT_EQ(archives_.dictionaryWithContentsOfFile(folder_ / "list.plist"), dictionary);
  EXPECT_THAT(folder_.read("list.plist"), StartsWith("<?xml"));
  EXPECT_THAT(names(), ElementsAre("list.plist"));
  struct stat item {};
  ASSERT_EQ(::stat((folder_ / "list.plist").c_str(), &item), 0);
  EXPECT_EQ(item.st_mode & 07777, 0600u);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PosixArchivesTest, readsTheBinaryFormToo) {
  const auto bytes = base::writeBinaryPropertyList(PropertyList::Dictionary{{"A", 1}});
  std::string text(bytes.size(), '\0');
  std::ranges::transform(bytes, text.begin(), [](std::byte byte) { return std::to_integer<char>(byte); });
  EXPECT_EQ(archives_.dictionaryWithContentsOfFile(folder_.write("list.plist", text)),
            (PropertyList::Dictionary{{"A", 1}}));
}

TEST_F(PosixArchivesTest, isSilentAboutAFileThatIsNotThere) {
  EXPECT_EQ(archives_.dictionaryWithContentsOfFile(folder_ / "list.plist"), std::nullopt);
  EXPECT_EQ(archives_.dictionaryWithContentsOfFile(folder_ / "missing/list.plist"), std::nullopt);
  EXPECT_FALSE(archives_.unarchiveObjectWithFile(folder_ / "a.manifest"));
  EXPECT_FALSE(archives_.writeDictionary({}, folder_ / "missing/list.plist"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PosixArchivesTest, saysWhichFileCannotBeReadAndWhy) {
  const auto damaged =
      folder_.write("damaged", "<plist version=\"1.0\">\n<dict>\n<key>A</key>\n</dict></plist>");
  const auto array = folder_.write("array", "<plist version=\"1.0\"><array/></plist>");
  const auto huge = folder_.write("huge", "");
  std::filesystem::resize_file(huge, (64 << 20) + 1);
  ASSERT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  for (const auto& path : {damaged, array, huge, folder_ / "fifo", folder_.path()}) {
    EXPECT_EQ(archives_.dictionaryWithContentsOfFile(path), std::nullopt);
  }
  EXPECT_THAT(log_.lines(),
              ElementsAre(testing::MatchesRegex("\\[Stashwick\\] " + damaged +
                                                ": reading an XML property list: line 4: .+"),
                          "[Stashwick] " + array + ": a property list whose root is no dictionary",
                          "[Stashwick] " + huge + ": too large: 67108865 bytes, at most 67108864 are read",
                          "[Stashwick] " + (folder_ / "fifo") + ": not a regular file",
                          "[Stashwick] " + folder_.path() + ": not a regular file"));
}

TEST_F(PosixArchivesTest, keepsEachDamagedFileBesideTheNewOne) {
  const auto path = folder_.write("list.plist", "rubbish 1");
  ASSERT_TRUE(archives_.writeDictionary({{"A", 1}}, path));
  folder_.write("list.plist", "rubbish 2");
  ASSERT_TRUE(archives_.writeDictionary({{"A", 2}}, path));
  ASSERT_TRUE(archives_.writeDictionary({{"A", 3}}, path));
  EXPECT_THAT(names(), ElementsAre("list.plist", "list.plist.damaged", "list.plist.damaged-2"));
  EXPECT_EQ(folder_.read("list.plist.damaged"), "rubbish 1");
  EXPECT_EQ(folder_.read("list.plist.damaged-2"), "rubbish 2");
  EXPECT_EQ(archives_.dictionaryWithContentsOfFile(path), (PropertyList::Dictionary{{"A", 3}}));
  EXPECT_THAT(log_.lines(), ElementsAre(HasSubstr("; kept as " + path + ".damaged"),
                                        HasSubstr("; kept as " + path + ".damaged-2")));
}

TEST_F(PosixArchivesTest, writesThroughALinkToTheList) {
  std::filesystem::create_directory(folder_ / "elsewhere");
  std::filesystem::create_symlink("elsewhere/real.plist", folder_ / "list.plist");
  for (const int value : {1, 2}) {
    ASSERT_TRUE(archives_.writeDictionary({{"A", value}}, folder_ / "list.plist"));
    EXPECT_TRUE(std::filesystem::is_symlink(folder_ / "list.plist"));
    EXPECT_EQ(archives_.dictionaryWithContentsOfFile(folder_ / "elsewhere/real.plist"),
              (PropertyList::Dictionary{{"A", value}}));
  }
}

TEST_F(PosixArchivesTest, saysThatALinkLeadsInACircle) {
  std::filesystem::create_symlink("list.plist", folder_ / "list.plist");
  EXPECT_EQ(archives_.dictionaryWithContentsOfFile(folder_ / "list.plist"), std::nullopt);
  EXPECT_THAT(log_.lines(),
              ElementsAre(HasSubstr("list.plist: cannot be opened: Too many levels of symbolic links")));
}

TEST_F(PosixArchivesTest, leavesNothingBehindWhenItCannotWrite) {
  std::filesystem::create_directory(folder_ / "a.manifest");
  EXPECT_FALSE(archives_.archiveRootObject(Manifest(), folder_ / "a.manifest"));
  EXPECT_FALSE(archives_.archiveRootObject(Manifest(), folder_ / "missing/a.manifest"));
  EXPECT_THAT(names(), ElementsAre("a.manifest"));
  EXPECT_THAT(log_.lines(), ElementsAre(HasSubstr("a.manifest: cannot be replaced: Is a directory"),
                                        HasSubstr("missing/a.manifest: cannot be written")));
}

TEST_F(PosixArchivesTest, archivesAnObjectThatUnarchives) {
  ASSERT_TRUE(archives_.archiveRootObject(Manifest(), folder_ / "a.manifest"));
  EXPECT_THAT(names(), ElementsAre("a.manifest"));
  const auto root = archives_.unarchiveObjectWithFile(folder_ / "a.manifest");
  ASSERT_TRUE(root);
  EXPECT_EQ(root->decodeString("format"), "HFS+");
  EXPECT_EQ(root->decodeURLs("files")->size(), 3u);
  EXPECT_TRUE(root->decodeBool("ready"));
}

TEST_F(PosixArchivesTest, saysWhatIsNoKeyedArchive) {
  EXPECT_FALSE(archives_.unarchiveObjectWithFile(folder_.write("a.manifest", kList)));
  EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("[Stashwick] " + (folder_ / "a.manifest") +
                                                   ": reading a keyed archive: ")));
}

TEST_F(PosixArchivesTest, readsNothingFromAnArchiveThatWasCutShortWhileItWasOpen) {
  ASSERT_TRUE(archives_.archiveRootObject(Manifest(50000), folder_ / "a.manifest"));
  const auto root = archives_.unarchiveObjectWithFile(folder_ / "a.manifest");
  ASSERT_TRUE(root);
  std::filesystem::resize_file(folder_ / "a.manifest", 10);
  EXPECT_EQ(root->decodeURLs("files"), std::nullopt);
}

TEST_F(PosixArchivesTest, asksAThousandManifestsInTheTimeOfAMenu) {
  ASSERT_TRUE(archives_.archiveRootObject(Manifest(30000), folder_ / "a.manifest"));
  EXPECT_GT(std::filesystem::file_size(folder_ / "a.manifest"), 2'000'000u);
  const auto begin = std::clock();
  for (int i = 0; i < 1000; ++i) {
    const auto root = archives_.unarchiveObjectWithFile(folder_ / "a.manifest");
    ASSERT_TRUE(root && root->containsValue("encryption") == false && root->decodeString("format") == "HFS+");
  }
  const auto took = std::clock() - begin;
  RecordProperty("microsecondsEach", static_cast<int>(took * 1000 / CLOCKS_PER_SEC));
  EXPECT_LT(took, CLOCKS_PER_SEC);
}

}  // namespace
