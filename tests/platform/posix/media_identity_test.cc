#include "platform/posix/media_identity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include "tests/platform/posix/temporary_folder.h"

namespace platform::posix {
namespace {

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

TEST(MediaIdentity, isWhatUdevAndTheKernelSay) {
  const TemporaryFolder folder;
  folder.write("sys/dev/block/8:17/size", "15628288\n");
  folder.write("udev/data/b8:17",
               "S:disk/by-uuid/CAFE-1234\nE:ID_FS_UUID=CAFE-1234\nE:ID_SERIAL_SHORT=0123456789\n"
               "E:ID_SCSI_SERIAL=other\nE:ID_PART_ENTRY_SCHEME=dos\nE:ID_PART_ENTRY_UUID=cafe0001-01\n");
  const MediaIdentity stick{.partitionTable = "dos",
                            .partition = "cafe0001-01",
                            .fileSystem = "CAFE-1234",
                            .serial = "0123456789",
                            .size = 15628288ULL * 512};
  EXPECT_EQ(mediaIdentityOf(makedev(8, 17), folder / "sys", folder / "udev"), stick);
}

TEST(MediaIdentity, takesTheSerialOfADiskThatSpeaksSCSIFromThere) {
  const TemporaryFolder folder;
  folder.write("udev/data/b8:17", "E:ID_SCSI=1\nE:ID_SERIAL_SHORT=5000c500\nE:ID_SCSI_SERIAL=Z1\n");
  EXPECT_EQ(mediaIdentityOf(makedev(8, 17), folder / "sys", folder / "udev").serial, "Z1");
}

TEST(MediaIdentity, isEmptyWhereNobodyKnowsTheDevice) {
  const TemporaryFolder folder;
  EXPECT_EQ(mediaIdentityOf(makedev(8, 17), folder / "sys", folder / "udev"), MediaIdentity());
}

}  // namespace
}  // namespace platform::posix
