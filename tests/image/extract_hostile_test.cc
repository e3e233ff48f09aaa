#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "image/extract.h"
#include "tests/image/memory_volume.h"
#include "tests/tools/scratch_folder.h"

namespace image {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr std::size_t kLarge = 9'000'000;

class ExtractHostile : public testing::Test {
 protected:
  ExtractHostile() {
    fs::create_directory(target);
    fs::create_directory(outside);
  }

  base::Result<ExtractReport> run(bool overwrites = false) {
    return extract(volume,
                   {.folder = target, .overwrites = overwrites, .workers = 3, .cancelled = &cancelled});
  }
  std::string errorOf(bool overwrites = false) {
    const auto report = run(overwrites);
    return report ? "none" : report.error().message;
  }
  std::vector<std::string> unreadable(bool overwrites = false) {
    const auto report = run(overwrites);
    EXPECT_TRUE(report) << report.error().message;
    return report ? report->unreadable : std::vector<std::string>();
  }
  static std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
    return names;
  }

  ScratchFolder scratch;
  std::string target = scratch / "target";
  std::string outside = scratch / "outside";
  std::atomic<bool> cancelled = false;
  MemoryVolume volume;
};

TEST_F(ExtractHostile, refusesNamesThatNoFileCanHave) {
  for (const std::string& name :
       {std::string(".."), std::string("."), std::string(), std::string("../outside/x"),
        std::string("/etc/x"), std::string("a\0b", 3)}) {
    volume = MemoryVolume();
    volume.addFile(MemoryVolume::kRoot, "first", "data");
    volume.addFile(volume.addFolder(MemoryVolume::kRoot, "folder"), name, "evil");
    EXPECT_THAT(errorOf(), HasSubstr("a name that no file can have"));
    EXPECT_THAT(namesIn(target), IsEmpty());
  }
  EXPECT_THAT(namesIn(scratch.path()), UnorderedElementsAre("target", "outside"));
}

TEST_F(ExtractHostile, doesNotWriteThroughALinkOfItsOwn) {
  volume.addLink(MemoryVolume::kRoot, "x", outside);
  volume.addFile(volume.addFolder(MemoryVolume::kRoot, "x"), "evil", "evil");
  volume.addLink(MemoryVolume::kRoot, "y", outside + "/evil");
  volume.addFile(MemoryVolume::kRoot, "y", "evil");
  EXPECT_THAT(errorOf(), HasSubstr("another item of the image has the same name there"));
  EXPECT_NE(errorOf(true), "none");
  EXPECT_THAT(namesIn(outside), IsEmpty());
}

TEST_F(ExtractHostile, doesNotWriteThroughALinkThatIsThereAlready) {
  fs::create_directory_symlink(outside, target + "/x");
  volume.addFile(volume.addFolder(MemoryVolume::kRoot, "x"), "evil", "evil");
  for (const bool overwrites : {false, true})
    EXPECT_EQ(errorOf(overwrites), target + "/x: something that is no folder is there already");
  EXPECT_THAT(namesIn(outside), IsEmpty());
}

TEST_F(ExtractHostile, replacesALinkAndNotWhatItLeadsTo) {
  scratch.write("outside/kept", "kept");
  fs::create_symlink(outside + "/kept", target + "/x");
  volume.addFile(MemoryVolume::kRoot, "x", "new");
  EXPECT_EQ(errorOf(true), "none");
  EXPECT_EQ(readFile(outside + "/kept"), "kept");
  EXPECT_FALSE(fs::is_symlink(target + "/x"));
  EXPECT_EQ(readFile(target + "/x"), "new");
}

TEST_F(ExtractHostile, refusesTwoItemsOfOneName) {
  volume.addFile(MemoryVolume::kRoot, "a", "first");
  volume.addFile(MemoryVolume::kRoot, "a", "second");
  EXPECT_EQ(errorOf(), target + "/a: another item of the image has the same name there");
  EXPECT_EQ(readFile(target + "/a"), "first");
  EXPECT_EQ(errorOf(true), target + "/a: another item of the image has the same name there");
  EXPECT_EQ(readFile(target + "/a"), "first");
}

TEST_F(ExtractHostile, refusesTwoLargeFilesOfOneName) {
  volume.addFile(MemoryVolume::kRoot, "a", std::string(kLarge, '1'));
  volume.addFile(MemoryVolume::kRoot, "a", std::string(kLarge, '2'));
  EXPECT_EQ(errorOf(), target + "/a: another item of the image has the same name there");
  EXPECT_THAT(namesIn(target), ElementsAre("a"));
}

TEST_F(ExtractHostile, refusesTwoFoldersOfOneName) {
  volume.addFolder(MemoryVolume::kRoot, "a");
  volume.addFolder(MemoryVolume::kRoot, "a");
  EXPECT_EQ(errorOf(), target + "/a: another item of the image has the same name there");
  EXPECT_EQ(errorOf(true), target + "/a: another item of the image has the same name there");
}

TEST_F(ExtractHostile, refusesAFolderInsideItself) {
  volume.addName(volume.addFolder(MemoryVolume::kRoot, "a"), "b", MemoryVolume::kRoot);
  EXPECT_EQ(errorOf(), "a/b: the folder is inside itself");
}

TEST_F(ExtractHostile, takesAFolderWithTwoNames) {
  const auto folder = volume.addFolder(MemoryVolume::kRoot, "a");
  volume.addFile(folder, "file", "x");
  volume.addName(volume.addFolder(MemoryVolume::kRoot, "b"), "c", folder);
  EXPECT_EQ(errorOf(), "none");
  EXPECT_EQ(readFile(target + "/a/file"), "x");
  EXPECT_EQ(readFile(target + "/b/c/file"), "x");
}

TEST_F(ExtractHostile, refusesFoldersThatLinksMultiplyBeyondMeasure) {
  std::uint32_t above = MemoryVolume::kRoot;
  for (int level = 0; level < 40; ++level) {
    const auto folder = volume.addFolder(above, "a");
    volume.addName(above, "b", folder);
    above = folder;
  }
  EXPECT_THAT(errorOf(), EndsWith(": hard links to folders show the same items too many times"));
  EXPECT_THAT(namesIn(target), IsEmpty());
}

TEST_F(ExtractHostile, leavesOutALinkToNothing) {
  volume.addLink(MemoryVolume::kRoot, "x", "");
  EXPECT_THAT(unreadable(), ElementsAre("x: the image holds a link to what can be no path"));
}

TEST_F(ExtractHostile, overwritesNothingUnaskedAndSaysSoFirst) {
  scratch.write("target/folder/z", "old");
  const auto folder = volume.addFolder(MemoryVolume::kRoot, "folder");
  volume.addFile(folder, "a", "new");
  volume.addFile(folder, "z", "new");
  EXPECT_EQ(errorOf(), target + "/folder/z: it exists already");
  EXPECT_THAT(namesIn(target + "/folder"), ElementsAre("z"));
  EXPECT_EQ(readFile(target + "/folder/z"), "old");
  EXPECT_EQ(errorOf(true), "none");
  EXPECT_EQ(readFile(target + "/folder/z"), "new");
  EXPECT_THAT(namesIn(target + "/folder"), UnorderedElementsAre("a", "z"));
}

TEST_F(ExtractHostile, neverReplacesAFolder) {
  scratch.write("target/x/kept", "kept");
  volume.addFile(MemoryVolume::kRoot, "x", "new");
  EXPECT_EQ(errorOf(true), target + "/x: a folder is there already");
  EXPECT_EQ(readFile(target + "/x/kept"), "kept");
}

TEST_F(ExtractHostile, leavesNoPartOfAFileThatCannotBeRead) {
  const auto small = volume.addFile(MemoryVolume::kRoot, "small", "data");
  volume.onRead = [&](std::uint32_t id, std::uint64_t) {
    return id == small ? base::Result<void>(base::Error{"bad block"}) : base::Result<void>();
  };
  EXPECT_THAT(unreadable(), ElementsAre("small: bad block"));
  EXPECT_THAT(namesIn(target), IsEmpty());
}

TEST_F(ExtractHostile, leavesNoPartOfALargeFileThatCannotBeRead) {
  volume.addFile(MemoryVolume::kRoot, "large", std::string(kLarge, 'l'));
  volume.onRead = [&](std::uint32_t, std::uint64_t offset) {
    return offset > kLarge / 2 ? base::Result<void>(base::Error{"bad block"}) : base::Result<void>();
  };
  EXPECT_THAT(unreadable(), ElementsAre("large: bad block"));
  EXPECT_THAT(namesIn(target), IsEmpty());
}

TEST_F(ExtractHostile, keepsTheOldFileWhereTheNewOneCannotBeRead) {
  scratch.write("target/a", "old");
  volume.addFile(MemoryVolume::kRoot, "a", "new");
  volume.onRead = [](std::uint32_t, std::uint64_t) { return base::Result<void>(base::Error{"bad block"}); };
  EXPECT_THAT(unreadable(true), ElementsAre("a: bad block"));
  EXPECT_THAT(namesIn(target), ElementsAre("a"));
  EXPECT_EQ(readFile(target + "/a"), "old");
}

TEST_F(ExtractHostile, extractsWhatCanBeReadAroundWhatCannot) {
  const auto folder = volume.addFolder(MemoryVolume::kRoot, "folder");
  const auto bad = volume.addFile(folder, "bad", "lost");
  volume.addName(MemoryVolume::kRoot, "z other name", bad);
  volume.addFile(folder, "good", "data");
  volume.addFile(MemoryVolume::kRoot, "large", std::string(kLarge, 'l'));
  volume.onRead = [&](std::uint32_t id, std::uint64_t) {
    return id == bad ? base::Result<void>(base::Error{"bad block"}) : base::Result<void>();
  };
  EXPECT_THAT(unreadable(), UnorderedElementsAre(EndsWith("bad block"), StartsWith("folder/bad: ")));
  EXPECT_THAT(namesIn(target), UnorderedElementsAre("folder", "large"));
  EXPECT_THAT(namesIn(target + "/folder"), ElementsAre("good"));
  EXPECT_EQ(readFile(target + "/folder/good"), "data");
}

TEST_F(ExtractHostile, extractsAFileOfWhichAnAttributeCannotBeRead) {
  const auto file = volume.addFile(MemoryVolume::kRoot, "a", "data");
  volume.setAttribute(file, "user.bad", "lost");
  volume.setAttribute(file, "user.good", "kept");
  volume.unreadableAttribute = "user.bad";
  EXPECT_THAT(unreadable(), ElementsAre("a: extended attribute user.bad: bad node"));
  EXPECT_EQ(readFile(target + "/a"), "data");
  std::array<char, 8> value{};
  EXPECT_EQ(::getxattr((target + "/a").c_str(), "user.good", value.data(), value.size()), 4);
}

TEST_F(ExtractHostile, leavesOutAFileThatEndsEarly) {
  volume.edit(volume.addFile(MemoryVolume::kRoot, "short", "data")).size = 1000;
  EXPECT_THAT(unreadable(), ElementsAre("short: it ends early in the image"));
  EXPECT_THAT(namesIn(target), IsEmpty());
}

// More parts than there are workers.
TEST_F(ExtractHostile, stopsWhenItIsInterrupted) {
  for (const char* name : {"a", "b"}) volume.addFile(MemoryVolume::kRoot, name, std::string(2 * kLarge, 'l'));
  volume.onRead = [&](std::uint32_t, std::uint64_t) {
    cancelled = true;
    return base::Result<void>();
  };
  EXPECT_EQ(errorOf(), "it was interrupted");
  EXPECT_THAT(namesIn(target), IsEmpty());
}

TEST_F(ExtractHostile, saysOnceWhatTheTargetDoesNotTake) {
  for (const char* name : {"a", "b", "c"})
    volume.setAttribute(volume.addFile(MemoryVolume::kRoot, name, "data"), "nobody.knows", "value");
  const auto report = run();
  ASSERT_TRUE(report) << report.error().message;
  EXPECT_THAT(report->leftOut,
              ElementsAre(AllOf(StartsWith("extended attribute nobody.knows of a and 2 more: "),
                                EndsWith("supported"))));
  EXPECT_EQ(readFile(target + "/c"), "data");
}

TEST_F(ExtractHostile, withholdsTheRightsOfAnOwnerWhoCouldNotBeGiven) {
  const auto file = volume.addFile(MemoryVolume::kRoot, "tool", "data");
  volume.edit(file).permissions = 06755;
  // The number that stands for no user, and leaves a file with the one that it has.
  volume.edit(file).user = 0xFFFFFFFF;
  const auto report = run();
  ASSERT_TRUE(report) << report.error().message;
  struct stat status {};
  ASSERT_EQ(::stat((target + "/tool").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 04000u, 0u);
  EXPECT_EQ(status.st_mode & 0777u, 0755u);
}

TEST_F(ExtractHostile, takesDatesThatNoClockShows) {
  volume.edit(volume.addFile(MemoryVolume::kRoot, "a", "data")).modified = {.seconds = INT64_MAX,
                                                                            .nanoseconds = 4'000'000'000};
  const auto report = run();
  ASSERT_TRUE(report) << report.error().message;
  EXPECT_THAT(report->leftOut, SizeIs(1));
  EXPECT_EQ(readFile(target + "/a"), "data");
}

}  // namespace
}  // namespace image
