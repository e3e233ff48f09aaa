#include "image/os/new_file.h"

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <vector>

#include "tests/tools/scratch_folder.h"

namespace image::os {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class NewFileTest : public testing::Test {
 protected:
  std::vector<std::string> names() const {
    std::vector<std::string> list;
    for (const auto& entry : fs::directory_iterator(scratch.path())) list.push_back(entry.path().filename());
    std::ranges::sort(list);
    return list;
  }
  static void put(NewFile& file, std::uint64_t offset, std::string text) {
    ASSERT_TRUE(file.write(offset, std::as_writable_bytes(std::span(text))));
  }

  ScratchFolder scratch;
  std::string path = scratch / "image.dmg";
};

TEST_F(NewFileTest, appearsOnlyWhenPublished) {
  auto file = *NewFile::create(path);
  put(*file, 3, "def");
  put(*file, 0, "abc");
  EXPECT_FALSE(fs::exists(path));
  ASSERT_TRUE(file->sync());
  ASSERT_TRUE(file->publish());
  EXPECT_EQ(readFile(path), "abcdef");
  EXPECT_THAT(names(), ElementsAre("image.dmg"));
}

TEST_F(NewFileTest, leavesNothingWhenItIsGivenUp) {
  {
    auto file = *NewFile::create(path);
    put(*file, 0, "abc");
  }
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(NewFileTest, neverTakesThePlaceOfAFileThatCameInBetween) {
  auto file = *NewFile::create(path);
  scratch.write("image.dmg", "other");
  const auto published = file->publish();
  ASSERT_FALSE(published);
  EXPECT_THAT(published.error().message, HasSubstr("exists already"));
  file.reset();
  EXPECT_EQ(readFile(path), "other");
  EXPECT_THAT(names(), ElementsAre("image.dmg"));
}

TEST_F(NewFileTest, readsBackAnyPieceOfWhatWasWritten) {
  auto file = *NewFile::create(path);
  std::string text;
  for (int i = 0; i < 3000; ++i) text += std::to_string(i);
  put(*file, 0, text);
  ASSERT_TRUE(file->sync());
  const auto contents = file->contents();
  ASSERT_EQ(contents->size(), text.size());
  for (const auto& [offset, size] : std::vector<std::pair<std::size_t, std::size_t>>{
           {0, text.size()}, {1, 1}, {4095, 2}, {text.size() - 1, 1}, {text.size(), 0}, {5000, 4096}}) {
    std::string piece(size, '\0');
    EXPECT_TRUE(contents->read(offset, std::as_writable_bytes(std::span(piece))));
    EXPECT_EQ(piece, text.substr(offset, size));
  }
  std::string beyond(2, '\0');
  EXPECT_FALSE(contents->read(text.size() - 1, std::as_writable_bytes(std::span(beyond))));
}

TEST_F(NewFileTest, removesWhatKilledRunsLeftInTheFolder) {
  scratch.write(".image.dmg.4711-0.unfinished", "half");
  scratch.write(".other.dmg.4711-12.unfinished", "half");
  for (const char* name : {".notes.unfinished", ".a.b-c.unfinished", "image.dmg.1-0.unfinished"})
    scratch.write(name, "somebody else's");
  ASSERT_TRUE(NewFile::create(path));
  EXPECT_THAT(names(), ElementsAre(".a.b-c.unfinished", ".notes.unfinished", "image.dmg.1-0.unfinished"));
}

TEST_F(NewFileTest, removesWhatAKilledRunLeftThoughTheNameIsTaken) {
  scratch.write(".image.dmg.4711-0.unfinished", "half");
  scratch.write("image.dmg", "whole");
  EXPECT_FALSE(NewFile::create(path));
  EXPECT_THAT(names(), ElementsAre("image.dmg"));
}

TEST_F(NewFileTest, givesBackTheSpaceThatItDidNotNeed) {
  auto file = *NewFile::create(path);
  file->reserveWhole(16 << 20);
  put(*file, 0, "abc");
  ASSERT_TRUE(file->sync());
  ASSERT_TRUE(file->publish());
  EXPECT_EQ(readFile(path), "abc");
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_LE(status.st_blocks * 512, 65'536);
}

TEST_F(NewFileTest, isForItsOwnerOnly) {
  auto file = *NewFile::create(path);
  ASSERT_TRUE(file->publish());
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(NewFileTest, leavesAFileAloneThatARunningToolHolds) {
  const auto hidden = scratch.write(".image.dmg.4711-0.unfinished", "being written");
  const FileDescriptor holder(::open(hidden.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(holder.number(), LOCK_EX), 0);
  ASSERT_TRUE(NewFile::create(path));
  EXPECT_THAT(names(), ElementsAre(".image.dmg.4711-0.unfinished"));
}

}  // namespace
}  // namespace image::os
