#include "image/os/block_device.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "tests/tools/scratch_folder.h"

namespace image::os {
namespace {

// What the kernel would tell of a disk, in a folder like those of sysfs.
class ErasableDisk : public testing::Test {
 protected:
  ErasableDisk() {
    say("loop/backing_file", "/tmp/file");
    say("ro", "0");
    say("queue/logical_block_size", "512");
    say("sdx1/partition", "1");
    for (const auto* part : {"", "sdx1/"})
      std::filesystem::create_directories(disk.folder + "/" + part + "holders");
  }

  void say(const std::string& attribute, const std::string& value) {
    scratch.write("sdx/" + attribute, value + "\n");
  }
  std::string refusal() const {
    const auto erasable = requireErasable(disk);
    return erasable ? "" : erasable.error().message;
  }

  ScratchFolder scratch;
  Disk disk{.device = "/dev/sdx", .folder = scratch / "sdx", .sequence = 7, .bytes = 1 << 30};
};

TEST_F(ErasableDisk, isAFreeOneThatCanBeWritten) { EXPECT_EQ(refusal(), ""); }

TEST_F(ErasableDisk, hasSectorsOf512Bytes) {
  say("queue/logical_block_size", "4096");
  EXPECT_EQ(refusal(), "/dev/sdx has sectors of other than 512 bytes");
}

TEST_F(ErasableDisk, holdsNoPartOfAMappedDevice) {
  say("sdx1/holders/dm-0/dev", "253:0");
  EXPECT_EQ(refusal(), "/dev/sdx is in use by dm-0");
}

TEST_F(ErasableDisk, isNoMemberOfAnArray) {
  say("holders/md0/dev", "9:0");
  EXPECT_EQ(refusal(), "/dev/sdx is in use by md0");
}

TEST_F(ErasableDisk, isNotWriteProtected) {
  say("ro", "1");
  EXPECT_EQ(refusal(), "/dev/sdx is write-protected");
}

TEST_F(ErasableDisk, hasAMedium) {
  disk.bytes = 0;
  EXPECT_EQ(refusal(), "/dev/sdx has no medium");
}

TEST_F(ErasableDisk, isNoneOfTheMachinesOwn) {
  std::filesystem::remove_all(scratch / "sdx/loop");
  EXPECT_EQ(refusal(), "/dev/sdx is not a removable disk on USB, and no other is erased");
}

}  // namespace
}  // namespace image::os
