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

TEST(MediaUUID, isThePartitionsGUIDInUpperCase) {
  EXPECT_EQ(mediaUUID({.partitionTable = "gpt",
                       .partition = "0fc63daf-8483-4772-8e79-3d69d8477de4",
                       .fileSystem = "CAFE-1234",
                       .serial = "1"}),
            "0FC63DAF-8483-4772-8E79-3D69D8477DE4");
}

TEST(MediaUUID, isMadeOfWhatTheMediumHasElse) {
  const MediaIdentity stick{.partitionTable = "dos",
                            .partition = "cafe0001-01",
                            .fileSystem = "CAFE-1234",
                            .serial = "0123456789",
                            .size = 8'000'000'000};
  const auto uuid = mediaUUID(stick);
  // Decisions are kept under it: it may never change.
  EXPECT_EQ(uuid, "A2EA978B-1419-5813-B9D9-C5123E076972");
  for (const auto change : {0, 1, 2, 3}) {
    auto other = stick;
    if (change == 0) other.partition = "cafe0001-02";
    if (change == 1) other.fileSystem = "CAFE-1235";
    if (change == 2) other.serial = "0123456780";
    if (change == 3) other.size += 512;
    EXPECT_NE(mediaUUID(other), uuid) << change;
  }
}

TEST(MediaUUID, doesNotTakeAnMBRPartitionsNumberForAGUID) {
  EXPECT_THAT(mediaUUID({.partitionTable = "gpt", .partition = "cafe0001-01", .fileSystem = {}, .serial = {}})
                  .value_or(""),
              testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-5[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
}

TEST(MediaUUID, isUnknownWhereOnlyTheSizeIsKnown) {
  EXPECT_EQ(
      mediaUUID({.partitionTable = "dos", .partition = {}, .fileSystem = {}, .serial = {}, .size = 1000}),
      std::nullopt);
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
