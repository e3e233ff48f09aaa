#pragma once

#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "ports/files.h"
#include "tests/contract/real_files.h"

namespace contract {

// What files and folders keep to on every host. A fixture has
//   ports::Files& files();
//   std::string folder();                      the logical path of an empty folder that tests may fill
//   std::filesystem::path real(logicalPath);   where that is
template <class Fixture>
class FilesContract : public testing::Test {
 protected:
  struct Seen {
    std::string path;
    std::string name;
    bool isDirectory;
    bool isRegularFile;
    bool isHidden;
    std::uint64_t totalFileSize;
    base::Date creationDate;
    base::Date contentModificationDate;
  };

  ports::Files& files() { return fixture.files(); }
  std::string at(const std::string& name) { return fixture.folder() + "/" + name; }
  std::filesystem::path real(const std::string& name) { return fixture.real(at(name)); }
  void write(const std::string& name, std::string_view contents) { writeRealFile(real(name), contents); }

  std::vector<Seen> enumerated(const std::string& path, const ports::ResourceKeys& keys = {}) {
    std::vector<Seen> seen;
    files().enumerate(path, keys, [&](const ports::FileItem& item) {
      seen.push_back({std::string(item.path), std::string(item.name), item.isDirectory, item.isRegularFile,
                      item.isHidden, item.totalFileSize, item.creationDate, item.contentModificationDate});
      return true;
    });
    return seen;
  }
  std::vector<std::string> paths(const std::string& path) {
    std::vector<std::string> all;
    for (const auto& seen : enumerated(path)) all.push_back(seen.path);
    return all;
  }

  Fixture fixture;
};
TYPED_TEST_SUITE_P(FilesContract);

TYPED_TEST_P(FilesContract, makesTheApplicationSupportFolder) {
  const auto folder = this->files().applicationSupportDirectory();
  EXPECT_TRUE(folder.starts_with('/')) << folder;
  EXPECT_TRUE(std::filesystem::is_directory(this->fixture.real(folder)));
  EXPECT_EQ(this->files().applicationSupportDirectory(), folder);
}

TYPED_TEST_P(FilesContract, seesFilesFoldersAndLinksThatLeadNowhere) {
  this->write("file", "");
  std::filesystem::create_directory(this->real("folder"));
  std::filesystem::create_symlink("nowhere", this->real("link"));
  for (const char* name : {"file", "folder", "link"})
    EXPECT_TRUE(this->files().fileExists(this->at(name))) << name;
  EXPECT_FALSE(this->files().fileExists(this->at("nowhere")));
  EXPECT_FALSE(this->files().fileExists(this->at("file/inside")));
}

TYPED_TEST_P(FilesContract, tellsTheSizeOfAFile) {
  this->write("file", std::string(12345, 'x'));
  this->write("empty", "");
  EXPECT_EQ(this->files().fileSize(this->at("file")), 12345U);
  EXPECT_EQ(this->files().fileSize(this->at("empty")), 0U);
  EXPECT_EQ(this->files().fileSize(this->at("none")), std::nullopt);
}

TYPED_TEST_P(FilesContract, tellsALinksOwnSize) {
  this->write("file", std::string(12345, 'x'));
  std::filesystem::create_symlink("file", this->real("link"));
  EXPECT_NE(this->files().fileSize(this->at("link")), 12345U);
}

TYPED_TEST_P(FilesContract, tellsTheFreeSizeThroughALastLinkToo) {
  std::filesystem::create_directory_symlink(this->fixture.real(this->fixture.folder()), this->real("link"));
  std::filesystem::create_symlink("nowhere", this->real("broken"));
  EXPECT_TRUE(this->files().fileSystemFreeSize(this->fixture.folder()).has_value());
  EXPECT_TRUE(this->files().fileSystemFreeSize(this->at("link")).has_value());
  EXPECT_EQ(this->files().fileSystemFreeSize(this->at("broken")), std::nullopt);
  EXPECT_EQ(this->files().fileSystemFreeSize(this->at("none")), std::nullopt);
}

TYPED_TEST_P(FilesContract, makesAFolderAndThoseAboveIt) {
  EXPECT_TRUE(this->files().createDirectory(this->at("a/b/c")));
  EXPECT_TRUE(std::filesystem::is_directory(this->real("a/b/c")));
  EXPECT_TRUE(this->files().createDirectory(this->at("a/b")));
}

TYPED_TEST_P(FilesContract, cannotMakeAFolderWhereAFileIs) {
  this->write("file", "");
  EXPECT_FALSE(this->files().createDirectory(this->at("file")));
  EXPECT_FALSE(this->files().createDirectory(this->at("file/below")));
}

TYPED_TEST_P(FilesContract, visitsEverythingBelowAFolderHiddenItemsAndPackagesToo) {
  for (const char* folder : {"Sub", "Sub/Deep", "Some.app", ".hidden"}) {
    std::filesystem::create_directory(this->real(folder));
  }
  for (const char* file : {"a", "Sub/b", "Sub/Deep/c", "Some.app/d", ".hidden/e", ".f"})
    this->write(file, "x");
  EXPECT_THAT(this->paths(this->fixture.folder()),
              testing::UnorderedElementsAre(this->at("Sub"), this->at("Sub/Deep"), this->at("Some.app"),
                                            this->at(".hidden"), this->at("a"), this->at("Sub/b"),
                                            this->at("Sub/Deep/c"), this->at("Some.app/d"),
                                            this->at(".hidden/e"), this->at(".f")));
}

TYPED_TEST_P(FilesContract, visitsAFolderBeforeItsContents) {
  std::filesystem::create_directories(this->real("m/n"));
  this->write("m/n/o", "");
  EXPECT_THAT(this->paths(this->fixture.folder()),
              testing::ElementsAre(this->at("m"), this->at("m/n"), this->at("m/n/o")));
}

TYPED_TEST_P(FilesContract, tellsNameAndKindWithoutBeingAsked) {
  std::filesystem::create_directory(this->real("folder"));
  this->write("file", "");
  std::filesystem::create_symlink("file", this->real("link"));
  std::map<std::string, std::pair<bool, bool>> kinds;
  for (const auto& seen : this->enumerated(this->fixture.folder())) {
    kinds[seen.name] = {seen.isDirectory, seen.isRegularFile};
  }
  EXPECT_EQ(kinds, (std::map<std::string, std::pair<bool, bool>>{
                       {"folder", {true, false}}, {"file", {false, true}}, {"link", {false, false}}}));
}

TYPED_TEST_P(FilesContract, tellsWhatItIsAskedForOfEachItem) {
  this->write(".dotted", "12345");
  const struct timespec times[] = {{1600000000, 0}, {1600000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, this->real(".dotted").c_str(), times, 0), 0);
  const auto seen = this->enumerated(this->fixture.folder(), {true, true, true, true});
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_TRUE(seen[0].isHidden);
  EXPECT_EQ(seen[0].totalFileSize, 5U);
  EXPECT_EQ(seen[0].contentModificationDate, base::Date::fromUnix(1600000000));
  EXPECT_GE(seen[0].creationDate, base::Date::fromUnix(1600000000));
}

TYPED_TEST_P(FilesContract, countsNoSizeForAnythingButRegularFiles) {
  std::filesystem::create_directory(this->real("folder"));
  std::filesystem::create_symlink("folder", this->real("link"));
  for (const auto& seen : this->enumerated(this->fixture.folder(), {.totalFileSize = true})) {
    EXPECT_EQ(seen.totalFileSize, 0U) << seen.name;
  }
}

TYPED_TEST_P(FilesContract, hidesNothingWithoutADot) {
  this->write("plain.txt", "");
  const auto seen = this->enumerated(this->fixture.folder(), {.isHidden = true});
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_FALSE(seen[0].isHidden);
}

TYPED_TEST_P(FilesContract, doesNotWalkThroughLinks) {
  std::filesystem::create_directory(this->real("folder"));
  this->write("folder/inside", "");
  std::filesystem::create_directory_symlink("folder", this->real("link"));
  std::filesystem::create_directory_symlink(".", this->real("loop"));
  EXPECT_THAT(this->paths(this->fixture.folder()),
              testing::UnorderedElementsAre(this->at("folder"), this->at("folder/inside"), this->at("link"),
                                            this->at("loop")));
}

TYPED_TEST_P(FilesContract, startsThroughALink) {
  std::filesystem::create_directory(this->real("folder"));
  this->write("folder/inside", "");
  std::filesystem::create_directory_symlink("folder", this->real("link"));
  EXPECT_THAT(this->paths(this->at("link")), testing::ElementsAre(this->at("link/inside")));
}

TYPED_TEST_P(FilesContract, visitsNothingWhereThereIsNoFolder) {
  this->write("file", "");
  EXPECT_THAT(this->paths(this->at("file")), testing::IsEmpty());
  EXPECT_THAT(this->paths(this->at("none")), testing::IsEmpty());
}

TYPED_TEST_P(FilesContract, endsWhenTheVisitorHasSeenEnough) {
  std::filesystem::create_directories(this->real("a/b"));
  this->write("a/b/c", "");
  this->write("d", "");
  int visits = 0;
  this->files().enumerate(this->fixture.folder(), {}, [&](const ports::FileItem&) { return ++visits < 2; });
  EXPECT_EQ(visits, 2);
}

TYPED_TEST_P(FilesContract, givesNamesAsTheyAreStored) {
  const std::vector<std::string> names = {"a b%20", "d\xC3\xA9j\xC3\xA0 vu", "n\nl"};
  for (const auto& name : names) this->write(name, "");
  std::vector<std::string> seen;
  for (const auto& item : this->enumerated(this->fixture.folder())) seen.push_back(item.name);
  EXPECT_THAT(seen, testing::UnorderedElementsAreArray(names));
}

TYPED_TEST_P(FilesContract, enumeratesInSeveralThreadsAtOnce) {
  std::filesystem::create_directory(this->real("folder"));
  for (int i = 0; i < 50; ++i) this->write("folder/" + std::to_string(i), "");
  std::size_t counts[3] = {};
  {
    std::vector<std::jthread> threads;
    for (auto& count : counts)
      threads.emplace_back([&] { count = this->enumerated(this->fixture.folder()).size(); });
  }
  EXPECT_THAT(counts, testing::Each(51U));
}

REGISTER_TYPED_TEST_SUITE_P(FilesContract, makesTheApplicationSupportFolder,
                            seesFilesFoldersAndLinksThatLeadNowhere, tellsTheSizeOfAFile, tellsALinksOwnSize,
                            tellsTheFreeSizeThroughALastLinkToo, makesAFolderAndThoseAboveIt,
                            cannotMakeAFolderWhereAFileIs,
                            visitsEverythingBelowAFolderHiddenItemsAndPackagesToo,
                            visitsAFolderBeforeItsContents, tellsNameAndKindWithoutBeingAsked,
                            tellsWhatItIsAskedForOfEachItem, countsNoSizeForAnythingButRegularFiles,
                            hidesNothingWithoutADot, doesNotWalkThroughLinks, startsThroughALink,
                            visitsNothingWhereThereIsNoFolder, endsWhenTheVisitorHasSeenEnough,
                            givesNamesAsTheyAreStored, enumeratesInSeveralThreadsAtOnce);

}  // namespace contract
