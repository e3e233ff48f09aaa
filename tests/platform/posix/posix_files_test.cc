#include "platform/posix/posix_files.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/posix/file_descriptor.h"
#include "tests/platform/posix/temporary_folder.h"
#include "tests/support/own_mounts.h"

using platform::posix::FileDescriptor;
using platform::posix::PathMap;
using platform::posix::PosixFiles;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr ports::ResourceKeys kAllKeys = {
    .isHidden = true, .totalFileSize = true, .creationDate = true, .contentModificationDate = true};

struct Seen {
  std::string name;
  bool isDirectory;
  bool isRegularFile;
  bool isHidden;
  std::uint64_t totalFileSize;
  base::Date creationDate;
  base::Date contentModificationDate;
};

class PosixFilesTest : public testing::Test {
 protected:
  std::map<std::string, Seen> itemsBelow(const std::string& path,
                                         const ports::ResourceKeys& keys = kAllKeys) {
    std::map<std::string, Seen> seen;
    files_.enumerate(path, keys, [&](const ports::FileItem& item) {
      EXPECT_TRUE(
          seen.try_emplace(std::string(item.path),
                           Seen{std::string(item.name), item.isDirectory, item.isRegularFile, item.isHidden,
                                item.totalFileSize, item.creationDate, item.contentModificationDate})
              .second);
      return true;
    });
    return seen;
  }
  std::vector<std::string> pathsBelow(const std::string& path) {
    std::vector<std::string> paths;
    files_.enumerate(path, {}, [&](const ports::FileItem& item) {
      paths.emplace_back(item.path);
      return true;
    });
    return paths;
  }

  TemporaryFolder folder_;
  PathMap paths_{"/opt/tools", folder_ / "volumes"};
  PosixFiles files_{paths_, folder_ / "data/share"};
};

TEST_F(PosixFilesTest, makesTheApplicationSupportFolderForThisUserOnly) {
  EXPECT_EQ(files_.applicationSupportDirectory(), folder_ / "data/share");
  struct stat item {};
  ASSERT_EQ(::stat((folder_ / "data/share").c_str(), &item), 0);
  EXPECT_EQ(item.st_mode & 07777, 0700u);
}

TEST_F(PosixFilesTest, findsThingsAndTheirSizesWithoutFollowingLinks) {
  const auto file = folder_.write("a", "12345");
  std::filesystem::create_symlink("nowhere", folder_ / "link");
  EXPECT_TRUE(files_.fileExists(file));
  EXPECT_TRUE(files_.fileExists(folder_.path()));
  EXPECT_TRUE(files_.fileExists(folder_ / "link"));
  EXPECT_FALSE(files_.fileExists(folder_ / "b"));
  EXPECT_FALSE(files_.fileExists(folder_ / "a/b"));
  EXPECT_EQ(files_.fileSize(file), 5u);
  EXPECT_EQ(files_.fileSize(folder_ / "link"), 7u);
  EXPECT_EQ(files_.fileSize(folder_ / "b"), std::nullopt);
}

TEST_F(PosixFilesTest, makesFoldersAndSaysWhetherTheyAreThere) {
  EXPECT_TRUE(files_.createDirectory(folder_ / "x/y/z"));
  EXPECT_TRUE(files_.createDirectory(folder_ / "x/y/z"));
  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "x/y/z"));
  folder_.write("file", "");
  EXPECT_FALSE(files_.createDirectory(folder_ / "file"));
  EXPECT_FALSE(files_.createDirectory(folder_ / "file/below"));
}

TEST_F(PosixFilesTest, tellsTheFreeSizeOfAVolumeOnlyWhileItIsThere) {
  EXPECT_EQ(files_.fileSystemFreeSize("/Volumes/STICK"), std::nullopt);
  paths_.setVolume("STICK", folder_.path());
  const auto free = files_.fileSystemFreeSize("/Volumes/STICK");
  ASSERT_TRUE(free);
  EXPECT_LE(*free, std::filesystem::space(folder_.path()).capacity);
  EXPECT_GT(*free, 0u);
}

TEST_F(PosixFilesTest, visitsEverythingBelowAFolderUnderItsLogicalPath) {
  folder_.write("stick/a", "1");
  folder_.write("stick/.b/c", "22");
  std::filesystem::create_directory(folder_ / "stick/package.app");
  paths_.setVolume("STICK", folder_ / "stick");
  EXPECT_THAT(pathsBelow("/Volumes/STICK"),
              UnorderedElementsAre("/Volumes/STICK/a", "/Volumes/STICK/.b", "/Volumes/STICK/.b/c",
                                   "/Volumes/STICK/package.app"));
  EXPECT_THAT(pathsBelow("/Volumes/STICK/"), testing::SizeIs(4));
  EXPECT_THAT(pathsBelow("/Volumes/STICK/.b/"), ElementsAre("/Volumes/STICK/.b/c"));
}

TEST_F(PosixFilesTest, visitsAFolderBeforeItsContents) {
  for (const auto* file : {"a/b/c/1", "a/b/2", "a/3", "d/e/4"}) folder_.write(std::string("t/") + file, "");
  std::set<std::string> seen{folder_ / "t"};
  for (const auto& path : pathsBelow(folder_ / "t")) {
    EXPECT_TRUE(seen.contains(std::filesystem::path(path).parent_path()));
    seen.insert(path);
  }
  EXPECT_EQ(seen.size(), 10u);
}

TEST_F(PosixFilesTest, tellsWhatTheKeysAskOfEachItem) {
  const auto before =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  const auto file = folder_.write("t/file", "123456");
  folder_.write("t/.hidden", "x");
  std::filesystem::create_directory(folder_ / "t/folder.d");
  std::filesystem::create_symlink("file", folder_ / "t/link");
  const timespec times[2] = {{1000000000, 0}, {1600007200, 500000000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);

  const auto items = itemsBelow(folder_ / "t");
  ASSERT_EQ(items.size(), 4u);
  const auto& seen = items.at(file);
  EXPECT_EQ(seen.name, "file");
  EXPECT_TRUE(seen.isRegularFile && !seen.isDirectory && !seen.isHidden);
  EXPECT_EQ(seen.totalFileSize, 6u);
  EXPECT_DOUBLE_EQ(seen.contentModificationDate.unix(), 1600007200.5);
  EXPECT_GE(seen.creationDate.unix(), before - 1);
  EXPECT_TRUE(items.at(folder_ / "t/.hidden").isHidden);
  const auto& folder = items.at(folder_ / "t/folder.d");
  EXPECT_TRUE(folder.isDirectory && !folder.isRegularFile);
  EXPECT_EQ(folder.totalFileSize, 0u);
  const auto& link = items.at(folder_ / "t/link");
  EXPECT_FALSE(link.isDirectory || link.isRegularFile);
  EXPECT_EQ(link.totalFileSize, 0u);
}

TEST_F(PosixFilesTest, doesNotFollowLinksBelowTheRootButTheRootsOwn) {
  folder_.write("real/inside", "");
  std::filesystem::create_directory_symlink(
      "../real", (std::filesystem::create_directory(folder_ / "t"), folder_ / "t/link"));
  EXPECT_THAT(pathsBelow(folder_ / "t"), ElementsAre(folder_ / "t/link"));
  EXPECT_THAT(pathsBelow(folder_ / "t/link"), ElementsAre(folder_ / "t/link/inside"));
}

TEST_F(PosixFilesTest, visitsNothingWhereThereIsNoFolder) {
  folder_.write("file", "");
  EXPECT_THAT(pathsBelow(folder_ / "file"), IsEmpty());
  EXPECT_THAT(pathsBelow(folder_ / "missing"), IsEmpty());
  EXPECT_THAT(pathsBelow("/Volumes/STICK"), IsEmpty());
  EXPECT_THAT(pathsBelow("/Volumes/.."), IsEmpty());
  EXPECT_THAT(pathsBelow(""), IsEmpty());
}

TEST_F(PosixFilesTest, endsWhenTheVisitorWantsNoMore) {
  for (int i = 0; i < 10; ++i) folder_.write("t/" + std::to_string(i) + "/file", "");
  int visits = 0;
  files_.enumerate(folder_ / "t", {}, [&](const ports::FileItem&) { return ++visits < 3; });
  EXPECT_EQ(visits, 3);
}

TEST_F(PosixFilesTest, endsRunningAndLaterEnumerationsWhenStopped) {
  for (int i = 0; i < 10; ++i) folder_.write("t/" + std::to_string(i) + "/file", "");
  int visits = 0;
  files_.enumerate(folder_ / "t", {}, [&](const ports::FileItem&) {
    files_.stop();
    return ++visits < 100;
  });
  EXPECT_EQ(visits, 1);
  EXPECT_THAT(pathsBelow(folder_ / "t"), IsEmpty());
}

TEST_F(PosixFilesTest, passesOverWhatVanishesMeanwhile) {
  for (const auto* file : {"a/1", "b/1", "c/1"}) folder_.write(std::string("t/") + file, "");
  std::vector<std::string> names;
  files_.enumerate(folder_ / "t", kAllKeys, [&](const ports::FileItem& item) {
    names.emplace_back(item.name);
    if (names.size() == 1) {
      for (const auto* other : {"a", "b", "c"}) {
        if (other != names[0]) std::filesystem::remove_all((folder_ / "t/") + other);
      }
    }
    return true;
  });
  EXPECT_EQ(names.size(), 2u);
}

// Trees that would take a disk long to make.
class BigTreeTest : public PosixFilesTest {
 protected:
  TemporaryFolder folder_{"/dev/shm"};
};

TEST_F(BigTreeTest, goesThousandsOfLevelsDownWithFewDescriptors) {
  constexpr int kLevels = 3000;
  std::filesystem::create_directory(folder_ / "t");
  FileDescriptor level(::open((folder_ / "t").c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < kLevels; ++i) {
    ASSERT_EQ(::mkdirat(level.get(), "d", 0700), 0);
    // A sibling on each level is reached only if the walk finds back up.
    const FileDescriptor sibling(::openat(level.get(), "e", O_CREAT | O_WRONLY, 0600));
    level = FileDescriptor(::openat(level.get(), "d", O_RDONLY | O_DIRECTORY));
    ASSERT_TRUE(sibling && level);
  }
  int folders = 0;
  int files = 0;
  std::size_t mostDescriptors = 0;
  files_.enumerate(folder_ / "t", kAllKeys, [&](const ports::FileItem& item) {
    (item.isDirectory ? folders : files)++;
    if (folders % 100 == 0) {
      const std::filesystem::directory_iterator open("/proc/self/fd");
      mostDescriptors =
          std::max(mostDescriptors, static_cast<std::size_t>(std::distance(begin(open), end(open))));
    }
    return true;
  });
  EXPECT_EQ(folders, kLevels);
  EXPECT_EQ(files, kLevels);
  EXPECT_LT(mostDescriptors, 60u);
}

TEST_F(PosixFilesTest, goesOnAboveAFolderThatWasMovedAwayWhileItWasVisited) {
  std::string deep = "t";
  for (int i = 0; i < 50; ++i) deep += "/d";
  folder_.write(deep + "/bottom", "");
  folder_.write("t/d/zz/after", "");
  folder_.write("t/zz/after", "");
  std::multiset<std::string> names;
  files_.enumerate(folder_ / "t", {}, [&](const ports::FileItem& item) {
    names.emplace(item.name);
    // The folders above have been closed by now, and ".." does not lead to them any more.
    if (item.name == "bottom") std::filesystem::rename(folder_ / "t/d/d/d", folder_ / "moved");
    return true;
  });
  EXPECT_EQ(names.count("bottom"), 1u);
  EXPECT_EQ(names.count("after"), 2u);
}

TEST_F(BigTreeTest, walksAHundredThousandFilesInSeconds) {
  constexpr int kFolders = 100;
  constexpr int kFilesInEach = 1000;
  for (int i = 0; i < kFolders; ++i) {
    const auto folder = folder_ / "t/" + std::to_string(i);
    std::filesystem::create_directories(folder);
    const FileDescriptor open(::open(folder.c_str(), O_RDONLY | O_DIRECTORY));
    for (int k = 0; k < kFilesInEach; ++k) {
      ASSERT_EQ(::mknodat(open.get(), std::to_string(k).c_str(), S_IFREG | 0600, 0), 0);
    }
  }
  const auto begin = std::clock();
  std::size_t visits = 0;
  files_.enumerate(folder_ / "t", {.isHidden = true, .totalFileSize = true}, [&](const ports::FileItem&) {
    ++visits;
    return true;
  });
  EXPECT_EQ(visits, kFolders + std::size_t{kFolders} * kFilesInEach);
  EXPECT_LT(std::clock() - begin, 5 * CLOCKS_PER_SEC);
}

TEST_F(PosixFilesTest, doesNotEnterAFolderThatIsItsOwnAncestor) {
  folder_.write("t/a/file", "");
  const std::string loop = folder_ / "t/a/loop";
  std::filesystem::create_directories(loop);
  ASSERT_NO_FATAL_FAILURE(takeOwnMounts());
  ASSERT_EQ(::mount((folder_ / "t").c_str(), loop.c_str(), nullptr, MS_BIND, nullptr), 0);
  const auto paths = pathsBelow(folder_ / "t");
  ::umount2(loop.c_str(), MNT_DETACH);
  EXPECT_THAT(paths, UnorderedElementsAre(folder_ / "t/a", folder_ / "t/a/file", loop));
}

TEST_F(PosixFilesTest, seesTheHiddenAttributeOnNTFS) {
  const auto image = folder_.write("image", "");
  const std::string volume = folder_ / "volume";
  std::filesystem::resize_file(image, 8 << 20);
  std::filesystem::create_directory(volume);
  const auto script = "( mkntfs -F -Q " + image + " && ntfs-3g " + image + " " + volume + " && cd " + volume +
                      " && mkdir folder && touch shown hidden .dotted folder/hidden && "
                      "setfattr -v 0x00000002 -n system.ntfs_attrib_be hidden folder/hidden ) >" +
                      (folder_ / "log") + " 2>&1";
  ASSERT_NO_FATAL_FAILURE(takeOwnMounts());
  const bool isMade = std::system(script.c_str()) == 0;
  std::set<std::string> hidden;
  for (const auto& [path, item] : itemsBelow(volume))
    if (item.isHidden) hidden.insert(path);
  ::umount2(volume.c_str(), MNT_DETACH);
  ASSERT_TRUE(isMade) << folder_.read("log");
  EXPECT_THAT(hidden, ElementsAre(volume + "/.dotted", volume + "/folder/hidden", volume + "/hidden"));
}

}  // namespace
