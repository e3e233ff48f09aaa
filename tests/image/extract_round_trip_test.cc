#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "image/compare.h"
#include "image/create.h"
#include "image/extract.h"
#include "tests/tools/scratch_folder.h"

namespace image {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

std::string noise(std::size_t count) {
  std::mt19937 random(7);
  std::string bytes(count, '\0');
  for (char& b : bytes) b = static_cast<char>(random());
  return bytes;
}

class ExtractRoundTrip : public testing::Test {
 protected:
  ExtractRoundTrip() { fs::create_directory(source); }

  std::string write(std::string_view name, std::string_view bytes) {
    return scratch.write("source/" + std::string(name), bytes);
  }
  std::unique_ptr<Volume> open() {
    const auto created = createImage({.source = source, .volumeName = "V", .image = image});
    EXPECT_TRUE(created) << created.error().message;
    auto opened = OpenedImage::open(image, nullptr);
    EXPECT_TRUE(opened) << opened.error().message;
    auto made = Volume::open(std::move(*opened));
    EXPECT_TRUE(made) << made.error().message;
    return std::move(*made);
  }
  ExtractReport extractAll(std::vector<std::string> paths = {}) {
    volume = open();
    auto report = extract(*volume, {.folder = target, .paths = std::move(paths), .workers = 3});
    EXPECT_TRUE(report) << report.error().message;
    return report ? std::move(*report) : ExtractReport();
  }
  // What an item is, without what it is called.
  static std::string describe(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0);
    std::string text = std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) + ":" +
                       std::to_string(status.st_gid) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
                       std::to_string(status.st_mtim.tv_nsec) + " " + std::to_string(status.st_rdev) + " " +
                       (S_ISDIR(status.st_mode) ? "" : std::to_string(status.st_nlink)) + " ";
    if (S_ISLNK(status.st_mode)) text += fs::read_symlink(path);
    if (S_ISREG(status.st_mode)) text += readFile(path);
    return text;
  }
  static std::map<std::string, std::string> describeAll(const fs::path& folder) {
    std::map<std::string, std::string> all{{".", describe(folder)}};
    for (const auto& entry : fs::recursive_directory_iterator(folder))
      all[entry.path().lexically_relative(folder)] = describe(entry.path());
    return all;
  }
  void expectSame() {
    const auto expected = describeAll(source);
    const auto actual = describeAll(target);
    for (const auto& [name, text] : expected) {
      const auto found = actual.find(name);
      ASSERT_NE(found, actual.end()) << name;
      EXPECT_TRUE(found->second == text) << name << "\n"
                                         << found->second.substr(0, 80) << "\n"
                                         << text.substr(0, 80);
    }
    EXPECT_EQ(actual.size(), expected.size());
    const auto differences = compare(*volume, {.folder = target, .workers = 3});
    ASSERT_TRUE(differences) << differences.error().message;
    EXPECT_TRUE(differences->empty());
  }
  static void setTimes(const std::string& path, std::int64_t seconds, long nanoseconds) {
    const timespec times[2]{{.tv_sec = seconds, .tv_nsec = nanoseconds},
                            {.tv_sec = seconds, .tv_nsec = nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }

  ScratchFolder scratch;
  std::string source = scratch / "source";
  std::string target = scratch / "target";
  std::string image = scratch / "out.dmg";
  std::unique_ptr<Volume> volume;
};

TEST_F(ExtractRoundTrip, keepsContentsOfAllSizes) {
  write("empty", "");
  write("small", "hello\n");
  write("range", noise(4u << 20));
  write("large", noise(13'000'001));
  write("zeros", std::string(5'000'000, '\0'));
  for (int i = 0; i < 700; ++i) write("many/" + std::to_string(i), noise(static_cast<std::size_t>(i) * 31));
  fs::create_directories(source + "/empty folder/inner");
  const auto report = extractAll();
  EXPECT_THAT(report.leftOut, IsEmpty());
  EXPECT_EQ(report.files, 705u);
  EXPECT_EQ(report.folders, 3u);
  expectSame();
}

TEST_F(ExtractRoundTrip, keepsNamesAsTheyWere) {
  for (const std::string name : {"Zürich", "Zu\u0308rich", "日本語", "not \xff\xfe utf", "tab\tnew\nline",
                                 "back\\slash", "colon:ed", " ", "-x", "Case", "case"})
    write(name, name);
  write(std::string(255, 'n'), "long");
  std::string deep = "deep";
  for (int i = 0; i < 300; ++i) deep += "/d" + std::to_string(i);
  write(deep + "/bottom", "bottom");
  extractAll();
  expectSame();
}

TEST_F(ExtractRoundTrip, keepsModesOwnersAndDatesToTheNanosecond) {
  const auto file = write("folder/file", "data");
  const auto locked = write("locked/secret", "data");
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(file.c_str(), 1234, 5678), 0);
    ASSERT_EQ(::chown((source + "/folder").c_str(), 1234, 5678), 0);
  }
  ASSERT_EQ(::chmod(file.c_str(), 06711), 0);
  ASSERT_EQ(::chmod(locked.c_str(), 0400), 0);
  fs::create_symlink("file", source + "/folder/link");
  setTimes(file, 1'234'567'890, 987'654'321);
  setTimes(source + "/folder/link", 1'000'000'000, 1);
  setTimes(locked, -5, 5);
  ASSERT_EQ(::chmod((source + "/folder").c_str(), 01775), 0);
  ASSERT_EQ(::chmod((source + "/locked").c_str(), 0500), 0);
  setTimes(source + "/folder", 1'500'000'000, 999'999'999);
  setTimes(source + "/locked", 1'500'000'001, 111);
  setTimes(source, 1'500'000'002, 222);
  extractAll();
  expectSame();
  ASSERT_EQ(::chmod((source + "/locked").c_str(), 0700), 0);
  ASSERT_EQ(::chmod((target + "/locked").c_str(), 0700), 0);
}

TEST_F(ExtractRoundTrip, keepsLinksOfBothKindsAndSpecialFiles) {
  const auto file = write("b/first", noise(5'000'000));
  fs::create_directory(source + "/a");
  fs::create_hard_link(file, source + "/a/second");
  fs::create_hard_link(file, source + "/third");
  fs::create_symlink("/absolute/../path", source + "/absolute");
  fs::create_symlink("../../above", source + "/a/above");
  ASSERT_EQ(::mkfifo((source + "/pipe").c_str(), 0640), 0);
  const auto report = extractAll();
  EXPECT_THAT(report.leftOut, IsEmpty());
  expectSame();
  EXPECT_TRUE(fs::equivalent(target + "/b/first", target + "/a/second"));
  EXPECT_TRUE(fs::equivalent(target + "/b/first", target + "/third"));
}

TEST_F(ExtractRoundTrip, keepsExtendedAttributesAndAccessControlLists) {
  const auto file = write("folder/file", "data");
  const std::string longValue(3900, 'v');
  ASSERT_EQ(::setxattr(file.c_str(), "user.note", "remember", 8, 0), 0);
  ASSERT_EQ(::setxattr((source + "/folder").c_str(), "user.long", longValue.data(), longValue.size(), 0), 0);
  ASSERT_EQ(runShell("setfacl -m u:12345:r " + shellWord(file)).status, 0);
  ASSERT_EQ(runShell("setfacl -d -m g:54321:rwx " + shellWord(source + "/folder")).status, 0);
  EXPECT_THAT(extractAll().leftOut, IsEmpty());
  expectSame();
  const auto attributes = [&](const std::string& folder) {
    return runShell("cd " + shellWord(folder) + " && getfacl -Rnp . && getfattr -Rd -m - .").output;
  };
  EXPECT_EQ(attributes(target), attributes(source));
}

TEST_F(ExtractRoundTrip, makesHolesOfBlocksOfZerosOnly) {
  write("hole", "begin" + std::string(8'000'000, '\0') + "end");
  write("small hole", std::string(100, 'x') + std::string(65'436, '\0'));
  write("data", std::string(4096, 'x') + std::string(4095, '\0') + "x");
  extractAll();
  expectSame();
  const auto blocks = [&](const std::string& name) {
    struct stat status {};
    EXPECT_EQ(::stat((target + "/" + name).c_str(), &status), 0);
    return status.st_blocks * 512;
  };
  EXPECT_LE(blocks("hole"), 16384);
  EXPECT_LE(blocks("small hole"), 8192);
  EXPECT_GE(blocks("data"), 8192);
}

TEST_F(ExtractRoundTrip, extractsWhatIsAskedForWithTheFoldersOnTheWay) {
  write("a/b/wanted", "1");
  write("a/b/other", "2");
  write("a/whole/x", "3");
  write("a/whole/y/z", "4");
  write("rest", "5");
  setTimes(source + "/a/b", 1'000'000'000, 5);
  extractAll({"a/b/wanted", "/a/whole/", "a/whole/x"});
  const auto all = describeAll(target);
  std::vector<std::string> names;
  for (const auto& [name, text] : all) names.push_back(name);
  EXPECT_THAT(names,
              ElementsAre(".", "a", "a/b", "a/b/wanted", "a/whole", "a/whole/x", "a/whole/y", "a/whole/y/z"));
  EXPECT_EQ(all.at("a/b"), describe(source + "/a/b"));
}

TEST_F(ExtractRoundTrip, addsToAFolderWhatItDoesNotHave) {
  write("a/b", "1");
  write("a/c", "2");
  extractAll({"a/b"});
  const auto second = extract(*volume, {.folder = target, .paths = {"a/c"}});
  ASSERT_TRUE(second) << second.error().message;
  EXPECT_EQ(readFile(target + "/a/b") + readFile(target + "/a/c"), "12");
}

TEST_F(ExtractRoundTrip, refusesAPathThatIsNotThere) {
  write("a", "1");
  volume = open();
  const auto report = extract(*volume, {.folder = target, .paths = {"a", "a/b"}});
  ASSERT_FALSE(report);
  EXPECT_EQ(report.error().message, "a/b: there is no such item in the image");
  EXPECT_FALSE(fs::exists(target));
}

class Compare : public ExtractRoundTrip {
 protected:
  std::vector<std::string> differences(bool quick = false) {
    const auto found = compare(*volume, {.folder = target, .isQuick = quick, .workers = 3});
    EXPECT_TRUE(found) << found.error().message;
    std::vector<std::string> lines;
    for (const Difference& difference : *found) {
      std::string line = std::string(1, "+-M"[static_cast<int>(difference.change)]) + " " + difference.path;
      for (const auto what : difference.what) line += " " + std::string(what);
      lines.push_back(line);
    }
    return lines;
  }
};

TEST_F(Compare, tellsWhatIsOnlyInOneOfThem) {
  write("gone/inner/x", "x");
  write("kept", "k");
  extractAll();
  fs::remove_all(target + "/gone");
  scratch.write("target/new/inner/y", "y");
  EXPECT_THAT(differences(), ElementsAre("- gone", "- gone/inner", "- gone/inner/x", "+ new", "+ new/inner",
                                         "+ new/inner/y"));
}

TEST_F(Compare, tellsWhatOfAnItemChanged) {
  write("contents", "aaaa");
  write("longer", "a");
  write("mode", "m");
  write("date", "d");
  write("large", noise(13'000'000));
  fs::create_symlink("one", source + "/link");
  write("kind/inner", "i");
  for (const char* name : {"contents", "longer", "large", "link"})
    setTimes(source + "/" + name, 1'000'000'000, 5);
  extractAll();
  const auto rewrite = [&](const std::string& name, const std::string& bytes) {
    scratch.write("target/" + name, bytes);
    setTimes(target + "/" + name, 1'000'000'000, 5);
  };
  rewrite("contents", "aaab");
  rewrite("longer", "aa");
  auto large = noise(13'000'000);
  large[12'999'999] ^= 1;
  large[5] ^= 1;
  rewrite("large", large);
  ASSERT_EQ(::chmod((target + "/mode").c_str(), 0400), 0);
  setTimes(target + "/date", 1'000'000'000, 6);
  fs::remove(target + "/link");
  fs::create_symlink("two", target + "/link");
  setTimes(target + "/link", 1'000'000'000, 5);
  fs::remove_all(target + "/kind");
  scratch.write("target/kind", "a file");
  EXPECT_THAT(differences(),
              ElementsAre("M contents contents", "M date date", "M kind kind", "- kind/inner",
                          "M large contents", "M link target", "M longer contents", "M mode mode"));
  EXPECT_THAT(differences(true), ElementsAre("M date date", "M kind kind", "- kind/inner", "M link target",
                                             "M longer contents", "M mode mode"));
}

TEST_F(Compare, doesNotFollowALinkInTheFolder) {
  write("folder/file", "data");
  extractAll();
  fs::rename(target + "/folder", scratch / "elsewhere");
  fs::create_directory_symlink(scratch / "elsewhere", target + "/folder");
  EXPECT_THAT(differences(), ElementsAre("M folder kind", "- folder/file"));
}

}  // namespace
}  // namespace image
