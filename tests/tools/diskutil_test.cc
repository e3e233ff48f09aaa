#include "tools/diskutil.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

#include "image/blank_disk.h"
#include "image/os/block_device.h"
#include "tests/tools/scratch_folder.h"

namespace {

using image::FileSystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t kMebibyte = 1 << 20;

class Diskutil : public testing::Test {
 protected:
  int run(const std::vector<std::string>& arguments) {
    return tools::diskutil(arguments,
                           {.out = out_, .error = error_, .erase = [this](const tools::Erasure& erasure) {
                              erased_.push_back(erasure);
                              return outcome_;
                            }});
  }

  std::ostringstream out_;
  std::ostringstream error_;
  std::vector<tools::Erasure> erased_;
  base::Result<void> outcome_;
};

TEST_F(Diskutil, erasesTheDiskThatIsNamed) {
  EXPECT_EQ(run({"eraseDisk", "JHFS+", "Größe", "disk3"}), 0);
  ASSERT_EQ(erased_.size(), 1u);
  EXPECT_EQ(erased_[0].fileSystem, FileSystem::journaledHFSPlus);
  EXPECT_EQ(erased_[0].name, "Größe");
  EXPECT_EQ(erased_[0].disk, "disk3");
  EXPECT_THAT(out_.str(), AllOf(HasSubstr("disk3"), HasSubstr("Größe"), Not(HasSubstr("failed"))));
  EXPECT_EQ(error_.str(), "");
}

TEST_F(Diskutil, saysWhyADiskIsNotErased) {
  outcome_ = base::Error{"there is no disk9 here"};
  EXPECT_EQ(run({"eraseDisk", "FAT32", "STICK", "disk9"}), 1);
  EXPECT_EQ(error_.str(), "diskutil: eraseDisk failed - there is no disk9 here\n");
  EXPECT_EQ(out_.str(), "");
}

TEST_F(Diskutil, erasesNothingUnlessItIsToldEverything) {
  const std::vector<std::vector<std::string>> lines{{"eraseDisk"},
                                                    {"eraseDisk", "FAT32"},
                                                    {"eraseDisk", "FAT32", "X"},
                                                    {"eraseDisk", "FAT32", "X", "disk1", "more"}};
  for (const auto& line : lines) {
    EXPECT_EQ(run(line), 64);
    EXPECT_THAT(error_.str(), AllOf(HasSubstr("usage: diskutil"), HasSubstr("failed")));
  }
  EXPECT_TRUE(erased_.empty());
}

TEST_F(Diskutil, knowsNoOtherVerbOrFileSystem) {
  for (const auto& line :
       std::vector<std::vector<std::string>>{{}, {"list"}, {"eraseDisk", "hfs+", "X", "disk1"}})
    EXPECT_EQ(run(line), 64);
  EXPECT_TRUE(erased_.empty());
}

TEST_F(Diskutil, refusesAFATNameThatWouldHaveToChange) {
  for (const std::string name :
       {"", "stick", "TWELVE CHARS", "A/B", "A.B", " LEADING", "TRAILING ", "GRÖSSE", "NO NAME"})
    EXPECT_EQ(run({"eraseDisk", "FAT32", name, "disk1"}), 1) << name;
  EXPECT_TRUE(erased_.empty());
  for (const std::string name : {"A", "ELEVEN CHAR", "A-B_(1)~!"})
    EXPECT_EQ(run({"eraseDisk", "FAT16", name, "disk1"}), 0) << name;
}

TEST_F(Diskutil, refusesAnHFSPlusNameThatCouldNotBeAPlace) {
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                                  std::string("line\nbreak"), std::string("\xFF"), std::string(256, 'x')})
    EXPECT_EQ(run({"eraseDisk", "HFS+", name, "disk1"}), 1) << name;
  EXPECT_TRUE(erased_.empty());
  EXPECT_EQ(run({"eraseDisk", "HFS+", std::string(255, 'x'), "disk1"}), 0);
}

// What layBlankDisk() makes, put over a file that was full of something else.
class BlankDisk : public testing::Test {
 protected:
  base::Result<void> lay(FileSystem fileSystem, const std::string& name, std::uint64_t bytes) {
    const std::string size = std::to_string(bytes / kMebibyte);
    const auto filled = runShell("yes old | head -c " + size + "M > " + shellWord(disk_));
    if (filled.status != 0) return base::Error{filled.output};
    const auto contents = image::layBlankDisk(
        {.fileSystem = fileSystem, .name = name, .bytes = bytes, .owner = 501, .group = 20});
    if (!contents) return contents.error();
    const image::os::FileDescriptor file(::open(disk_.c_str(), O_RDWR | O_CLOEXEC));
    return image::os::overwrite(file, *contents);
  }

  std::string outputOf(const std::string& line) {
    const auto result = runShell("disk=" + shellWord(disk_) + "; part=" + shellWord(scratch_ / "part") +
                                 "; dd if=\"$disk\" of=\"$part\" bs=1M skip=1 status=none; " + line);
    EXPECT_EQ(result.status, 0) << result.output;
    return result.output;
  }

  ScratchFolder scratch_;
  std::string disk_ = scratch_ / "disk";
};

TEST_F(BlankDisk, hasOneFATVolumeThatOthersFindFlawless) {
  for (const auto& [fileSystem, type, version] :
       {std::tuple{FileSystem::FAT16, "type=e", "FAT16"}, {FileSystem::FAT32, "type=c", "FAT32"}}) {
    ASSERT_TRUE(lay(fileSystem, "KING STICK", 80 * kMebibyte));
    EXPECT_THAT(outputOf("/usr/sbin/sfdisk -d \"$disk\""), AllOf(HasSubstr("label: dos"), HasSubstr(type)));
    EXPECT_THAT(outputOf("/usr/sbin/blkid -p \"$part\""),
                AllOf(HasSubstr(version), HasSubstr("LABEL=\"KING STICK\"")));
    EXPECT_THAT(outputOf("/usr/sbin/fsck.fat -n \"$part\""), HasSubstr("1 files"));
  }
}

TEST_F(BlankDisk, hasOneEmptyHFSPlusVolume) {
  ASSERT_TRUE(lay(FileSystem::HFSPlus, "Größe", 80 * kMebibyte));
  EXPECT_THAT(outputOf("/usr/sbin/sfdisk -d \"$disk\" && /usr/sbin/sfdisk --verify \"$disk\""),
              AllOf(HasSubstr("label: gpt"), HasSubstr("48465300-0000-11AA-AA11-00306543ECAC"),
                    HasSubstr("No errors detected")));
  EXPECT_THAT(outputOf("fsstat -o 2048 \"$disk\""),
              AllOf(HasSubstr("Volume Unmounted Properly"), HasSubstr("Number of files: 0"),
                    HasSubstr("Allocation Block Size: 4096")));
  EXPECT_THAT(outputOf("fshfsinfo -o 1048576 -H \"$disk\""), Not(HasSubstr("journal")));
  EXPECT_THAT(outputOf("7zz l -thfs \"$part\""), AllOf(HasSubstr("0 files"), Not(HasSubstr("ERROR"))));
}

TEST_F(BlankDisk, countsExactlyTheBlocksThatAreFree) {
  ASSERT_TRUE(lay(FileSystem::HFSPlus, "X", 80 * kMebibyte));
  // The allocation file begins at block 1; the volume header counts its blocks at 44 and the free ones at 48.
  const std::string program =
      "import sys, struct; v = open(sys.argv[1], 'rb').read(); total, free = struct.unpack_from('>II', v, "
      "1024 + 44); "
      "bits = ''.join(f'{b:08b}' for b in v[4096:4096 + (total + 7) // 8]); "
      "print(bits[:total].count('0') == free, bits[total - 1], set(bits[total:]) <= {'1'}, v[1024:1536] == "
      "v[total * 4096 - 1024:total * 4096 - 512])";
  EXPECT_EQ(outputOf("python3 -c " + shellWord(program) + " \"$part\""), "True 1 True True\n");
}

TEST_F(BlankDisk, hasAJournalWhereOneIsAskedFor) {
  ASSERT_TRUE(lay(FileSystem::journaledHFSPlus, "With Journal", 80 * kMebibyte));
  EXPECT_THAT(outputOf("fsstat -o 2048 \"$disk\""),
              AllOf(HasSubstr("Journal"), HasSubstr("Number of files: 2")));
  EXPECT_THAT(outputOf("fshfsinfo -o 1048576 -H \"$disk\""),
              AllOf(HasSubstr("/.journal\n"), HasSubstr("/.journal_info_block\n")));
}

TEST_F(BlankDisk, keepsNothingThatTellsAnOlderDisk) {
  ASSERT_TRUE(lay(FileSystem::HFSPlus, "X", 80 * kMebibyte));
  const auto contents =
      image::layBlankDisk({.fileSystem = FileSystem::FAT32, .name = "NEW", .bytes = 80 * kMebibyte});
  const image::os::FileDescriptor file(::open(disk_.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(contents && image::os::overwrite(file, *contents));
  EXPECT_EQ(outputOf("/usr/sbin/wipefs --noheadings --output TYPE \"$part\" | sort -u"), "vfat\n");
  EXPECT_THAT(outputOf("/usr/sbin/wipefs --noheadings --output TYPE \"$disk\""), testing::StrEq("dos\n"));
}

TEST_F(BlankDisk, isNotMadeWhereItDoesNotFit) {
  EXPECT_FALSE(lay(FileSystem::HFSPlus, "X", kMebibyte));
  EXPECT_THAT(lay(FileSystem::FAT16, "X", 9 * kMebibyte).error().message, HasSubstr("mkfs.fat"));
  EXPECT_FALSE(image::layBlankDisk({.fileSystem = FileSystem::FAT16, .name = "X", .bytes = 5ull << 30}));
  EXPECT_FALSE(image::layBlankDisk({.fileSystem = FileSystem::FAT32, .name = "X", .bytes = 3ull << 40}));
}

TEST(FindDisk, knowsWholeDisksOnly) {
  for (const std::string name :
       {"disk", "disk0", "disk99999999", "/dev/disk99999999", "disk1s1", "/dev/null", "/etc", ""})
    EXPECT_FALSE(image::os::findDisk(name)) << name;
}

}  // namespace
