#include "platform/linux/block_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include "tests/platform/posix/temporary_folder.h"

namespace platform::freedesktop {
namespace {

TEST(DiskSequence, isWhatTheKernelCountsForTheDisk) {
  const TemporaryFolder sysfs;
  sysfs.write("dev/block/8:16/diskseq", "42\n");
  sysfs.write("dev/block/259:7/diskseq", "none\n");
  EXPECT_EQ(diskSequence(sysfs.path(), makedev(8, 16)), 42);
  EXPECT_EQ(diskSequence(sysfs.path(), makedev(259, 7)), std::nullopt);
  EXPECT_EQ(diskSequence(sysfs.path(), makedev(8, 32)), std::nullopt);
}

TEST(VolumeName, isTheLabel) { EXPECT_EQ(volumeName("My Stick é", "Flash Drive", 1), "My Stick é"); }

TEST(VolumeName, isTheDrivesModelAndSizeWithoutALabel) {
  EXPECT_EQ(volumeName("", "Flash Drive", 7'999'000'000), "Flash Drive 8 GB");
  EXPECT_EQ(volumeName("  ", "Flash Drive", 512'000'000), "Flash Drive 512 MB");
  EXPECT_EQ(volumeName("", "", 1'440'000), "Volume 1 MB");
  EXPECT_EQ(volumeName("", "A/B", 999), "A_B 999 bytes");
}

TEST(VolumeName, isNeverAPathOfItsOwn) {
  EXPECT_EQ(volumeName(".", "Drive", 0), "Drive 0 bytes");
  EXPECT_EQ(volumeName("..", "Drive", 0), "Drive 0 bytes");
  EXPECT_EQ(volumeName("a/../b\n\x7F", "Drive", 0), "a_.._b__");
}

TEST(FreeName, countsUpUntilOneIsFree) {
  const auto isTaken = [](const std::string& name) { return name == "STICK" || name == "STICK 1"; };
  EXPECT_EQ(freeName("OTHER", isTaken), "OTHER");
  EXPECT_EQ(freeName("STICK", isTaken), "STICK 2");
}

}  // namespace
}  // namespace platform::freedesktop
