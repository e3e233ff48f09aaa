#include "image/block/partition_map.h"

#include <algorithm>
#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <string_view>

#include "base/byte_order.h"
#include "image/block/guid_partition_table.h"

namespace image::block {
namespace {

using testing::HasSubstr;

// A disk in memory that tests write a map on.
struct MadeDisk {
  explicit MadeDisk(std::size_t sectors) : bytes(sectors * 512) {}

  void put(std::size_t offset, std::string_view text) {
    std::ranges::copy(std::as_bytes(std::span(text)), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
  }
  template <class T>
  void putBig(std::size_t offset, T value) {
    base::storeBigEndian(bytes.data() + offset, value);
  }
  template <class T>
  void putLittle(std::size_t offset, T value) {
    storeLittleEndian(bytes.data() + offset, value);
  }
  // The signature of a volume header in the volume that begins at a sector.
  void putVolume(std::size_t sector, std::string_view signature) { put(sector * 512 + 1024, signature); }

  base::Result<PartitionMap> read() const {
    const base::SpanRandomAccess file(bytes);
    return PartitionMap::read(FileDisk(file));
  }
  PartitionMap map() const {
    auto found = read();
    EXPECT_TRUE(found) << found.error().message;
    return found ? *found : PartitionMap{};
  }
  std::string failure() const {
    const auto found = read();
    return found ? "it did not fail" : found.error().message;
  }

  std::vector<std::byte> bytes;
};

Extent sectors(std::uint64_t first, std::uint64_t count) { return {first * 512, count * 512}; }

constexpr std::size_t kDiskSectors = 200;

// With a partition of HFS+ from sector 60 to 159, and one of something else before it.
struct GUIDDisk : MadeDisk {
  explicit GUIDDisk(std::uint32_t entryBytes_ = 128, std::uint64_t last = 159)
      : MadeDisk(kDiskSectors), entryBytes(entryBytes_) {
    bytes[510] = std::byte{0x55};
    bytes[511] = std::byte{0xAA};
    bytes[450] = std::byte{0xEE};
    putTable(2, last);
    putTable(kDiskSectors - 9, last);
    putHeader(1, 2);
    putHeader(kDiskSectors - 1, kDiskSectors - 9);
  }
  void putTable(std::size_t sector, std::uint64_t last) {
    const std::size_t first = sector * 512;
    put(first, "another kind of ");
    putLittle(first + 32, std::uint64_t{40});
    putLittle(first + 40, std::uint64_t{59});
    const std::size_t second = first + 2 * entryBytes;
    for (std::size_t i = 0; i < 16; ++i) bytes[second + i] = std::byte{kHFSPartitionType[i]};
    putLittle(second + 32, std::uint64_t{60});
    putLittle(second + 40, last);
    constexpr std::u16string_view kName = u"Sträußchen";
    for (std::size_t i = 0; i < kName.size(); ++i)
      putLittle(second + 56 + 2 * i, static_cast<std::uint16_t>(kName[i]));
  }
  void putHeader(std::size_t sector, std::uint64_t table) {
    const std::size_t at = sector * 512;
    put(at, kTableHeaderSignature);
    putLittle(at + 12, std::uint32_t{kTableHeaderBytes});
    putLittle(at + 72, table);
    putLittle(at + 80, std::uint32_t{8});
    putLittle(at + 84, entryBytes);
    const std::span whole(bytes);
    putLittle(at + 88, crc32(whole.subspan(table * 512, 8 * entryBytes)));
    putLittle(at + 16, std::uint32_t{0});
    putLittle(at + 16, crc32(whole.subspan(at, kTableHeaderBytes)));
  }

  std::uint32_t entryBytes;
};

void expectGUIDPartitions(const MadeDisk& disk) {
  const auto map = disk.map();
  EXPECT_EQ(map.scheme, PartitionScheme::guid);
  ASSERT_EQ(map.partitions.size(), 2u);
  EXPECT_EQ(map.partitions[0].extent, sectors(40, 20));
  EXPECT_EQ(map.partitions[0].type, "746F6E61-6568-2072-6B69-6E64206F6620");
  EXPECT_FALSE(map.partitions[0].hfsPlus);
  EXPECT_EQ(map.partitions[1].extent, sectors(60, 100));
  EXPECT_EQ(map.partitions[1].type, "48465300-0000-11AA-AA11-00306543ECAC");
  EXPECT_EQ(map.partitions[1].name, "Sträußchen");
  EXPECT_EQ(map.partitions[1].hfsPlus, sectors(60, 100));
}

TEST(GUIDPartitionTable, tellsItsPartitions) { expectGUIDPartitions(GUIDDisk()); }

TEST(GUIDPartitionTable, mayHaveLargerEntries) { expectGUIDPartitions(GUIDDisk(256)); }

TEST(GUIDPartitionTable, isReadFromItsBackupWhereTheHeaderOrTheEntriesAreDamaged) {
  for (const std::size_t at : {512 + 16, 512 + 0, 512 + 73, 512 + 91, 2 * 512 + 40, 2 * 512 + 1000}) {
    GUIDDisk disk;
    disk.bytes[at] ^= std::byte{1};
    expectGUIDPartitions(disk);
  }
}

TEST(GUIDPartitionTable, failsWhereBothCopiesAreDamaged) {
  GUIDDisk disk;
  disk.bytes[512 + 50] ^= std::byte{1};
  disk.bytes[(kDiskSectors - 9) * 512] ^= std::byte{1};
  EXPECT_THAT(disk.failure(), HasSubstr("both copies"));
}

TEST(GUIDPartitionTable, failsWhereItsVolumeReachesPastTheDisk) {
  EXPECT_THAT(GUIDDisk(128, kDiskSectors).failure(), HasSubstr("reaches past the end of the disk"));
}

TEST(GUIDPartitionTable, failsWhereAPartitionEndsBeforeItBegins) {
  EXPECT_THAT(GUIDDisk(128, 59).failure(), HasSubstr("ends before it begins"));
}

TEST(GUIDPartitionTable, findsAVolumeByItsSignatureWhereTheTypeSaysNothing) {
  GUIDDisk disk;
  disk.putVolume(40, "HX");
  EXPECT_EQ(disk.map().partitions[0].hfsPlus, sectors(40, 20));
}

struct MBRDisk : MadeDisk {
  MBRDisk() : MadeDisk(100) {
    bytes[510] = std::byte{0x55};
    bytes[511] = std::byte{0xAA};
  }
  void putEntry(std::size_t i, std::uint8_t type, std::uint32_t first, std::uint32_t count) {
    bytes[446 + 16 * i + 4] = std::byte{type};
    putLittle(446 + 16 * i + 8, first);
    putLittle(446 + 16 * i + 12, count);
  }
};

TEST(MasterBootRecord, tellsItsPartitions) {
  MBRDisk disk;
  disk.putEntry(0, 0x0C, 10, 20);
  disk.putEntry(2, 0xAF, 30, 40);
  const auto map = disk.map();
  EXPECT_EQ(map.scheme, PartitionScheme::masterBootRecord);
  ASSERT_EQ(map.partitions.size(), 2u);
  EXPECT_EQ(map.partitions[0].type, "0x0C");
  EXPECT_FALSE(map.partitions[0].hfsPlus);
  EXPECT_EQ(map.partitions[1].type, "0xAF");
  EXPECT_EQ(map.partitions[1].hfsPlus, sectors(30, 40));
}

TEST(MasterBootRecord, leavesOutOtherPartitionsThatReachPastTheDisk) {
  MBRDisk disk;
  disk.putEntry(0, 0x0C, 10, 200);
  disk.putEntry(1, 0x83, 10, 20);
  disk.putVolume(10, "H+");
  const auto map = disk.map();
  ASSERT_EQ(map.partitions.size(), 1u);
  EXPECT_EQ(map.partitions[0].hfsPlus, sectors(10, 20));
}

TEST(MasterBootRecord, failsWhereItsVolumeReachesPastTheDisk) {
  MBRDisk disk;
  disk.putEntry(0, 0xAF, 10, 200);
  EXPECT_THAT(disk.failure(), HasSubstr("reaches past the end"));
}

// Entries: the map itself, one of the type, free space.
struct AppleDisk : MadeDisk {
  AppleDisk(std::size_t blockBytes_, std::string_view type) : MadeDisk(400), blockBytes(blockBytes_) {
    put(0, "ER");
    putEntry(1, "Apple", "Apple_partition_map", 1, 3);
    putEntry(2, "A disk", type, 10, 50);
    putEntry(3, "Extra", "Apple_Free", 60, 1000);
  }
  void putEntry(std::size_t i, std::string_view name, std::string_view type, std::uint32_t first,
                std::uint32_t count) {
    const std::size_t at = i * blockBytes;
    put(at, "PM");
    putBig(at + 4, std::uint32_t{3});
    putBig(at + 8, first);
    putBig(at + 12, count);
    put(at + 16, name);
    put(at + 48, type);
  }
  std::size_t blockBytes;
};

class ApplePartitionMap : public testing::TestWithParam<std::size_t> {};

TEST_P(ApplePartitionMap, tellsItsPartitions) {
  for (const std::string type : {"Apple_HFS", "Apple_HFSX"}) {
    const auto map = AppleDisk(GetParam(), type).map();
    EXPECT_EQ(map.scheme, PartitionScheme::apple);
    ASSERT_EQ(map.partitions.size(), 2u);
    EXPECT_EQ(map.partitions[0].type, "Apple_partition_map");
    EXPECT_FALSE(map.partitions[0].hfsPlus);
    EXPECT_EQ(map.partitions[1].type, type);
    EXPECT_EQ(map.partitions[1].name, "A disk");
    EXPECT_EQ(map.partitions[1].hfsPlus, (Extent{10 * GetParam(), 50 * GetParam()}));
  }
}

TEST_P(ApplePartitionMap, failsWhereAnEntryIsDamaged) {
  AppleDisk disk(GetParam(), "Apple_HFS");
  disk.put(3 * GetParam(), "??");
  EXPECT_THAT(disk.failure(), HasSubstr("entry 3 of the partition map is damaged"));
}

TEST_P(ApplePartitionMap, failsWhereItClaimsMoreEntriesThanCanBe) {
  AppleDisk disk(GetParam(), "Apple_HFS");
  disk.putBig(GetParam() + 4, std::uint32_t{0xFFFFFFFF});
  EXPECT_THAT(disk.failure(), HasSubstr("too many entries"));
}

INSTANTIATE_TEST_SUITE_P(BlockSizes, ApplePartitionMap, testing::Values(512, 2048));

TEST(BareVolume, isAPartitionOfTheWholeDisk) {
  for (const std::string_view signature : {"H+", "HX"}) {
    MadeDisk disk(50);
    disk.putVolume(0, signature);
    // Boot blocks of volumes may look like a master boot record.
    disk.put(510, "\x55\xAA");
    const auto map = disk.map();
    EXPECT_EQ(map.scheme, PartitionScheme::none);
    ASSERT_EQ(map.partitions.size(), 1u);
    EXPECT_EQ(map.partitions[0].hfsPlus, sectors(0, 50));
  }
}

// An HFS volume with blocks of 2048 bytes from sector 4 on, three of which (from the second on) it embeds.
struct Wrapper : MadeDisk {
  explicit Wrapper(std::uint16_t blocks = 3) : MadeDisk(50) {
    putVolume(0, "BD");
    putBig(1024 + 20, std::uint32_t{2048});
    putBig(1024 + 28, std::uint16_t{4});
    put(1024 + 124, "H+");
    putBig(1024 + 126, std::uint16_t{1});
    putBig(1024 + 128, blocks);
  }
};

TEST(Wrapper, isPassedThroughToTheVolumeThatItEmbeds) {
  EXPECT_EQ(Wrapper().map().partitions.at(0).hfsPlus, sectors(8, 12));
}

TEST(Wrapper, hasNoVolumeWhereThatWouldReachPastIt) {
  EXPECT_EQ(Wrapper(11).map().partitions.at(0).hfsPlus, std::nullopt);
}

TEST(OlderHFS, isNoHFSPlusVolumeWhateverItsPartitionSays) {
  AppleDisk disk(512, "Apple_HFS");
  disk.putVolume(10, "BD");
  EXPECT_FALSE(disk.map().partitions.at(1).hfsPlus);
  EXPECT_TRUE(disk.map().partitions.at(1).isOlderHFS);
}

TEST(PartitionMap, isEmptyWhereNothingIsKnown) {
  for (const std::size_t count : {0, 1, 2, 3, 100}) EXPECT_TRUE(MadeDisk(count).map().partitions.empty());
}

TEST(PartitionMap, saysThatTheDiskCannotBeRead) {
  class Broken : public Disk {
    std::uint64_t size() const override { return 1 << 20; }
    base::Result<void> readChecked(std::uint64_t, std::span<std::byte>) const override {
      return base::Error{"it fell"};
    }
  };
  EXPECT_THAT(PartitionMap::read(Broken()).error().message, HasSubstr("cannot be read: it fell"));
}

TEST(PartitionMap, neverTellsOfWhatLiesOutsideTheDisk) {
  std::mt19937 random(4);
  const std::array whole{GUIDDisk().bytes, AppleDisk(512, "Apple_HFS").bytes, Wrapper().bytes};
  for (int i = 0; i < 30'000; ++i) {
    MadeDisk disk(0);
    disk.bytes = whole[static_cast<std::size_t>(i) % whole.size()];
    for (int flips = 0; flips < 6; ++flips) disk.bytes[random() % 2048] = static_cast<std::byte>(random());
    const auto map = disk.read();
    if (!map) continue;
    for (const Partition& partition : map->partitions) {
      EXPECT_TRUE(liesWithin(partition.extent.offset, partition.extent.size, disk.bytes.size()));
      if (!partition.hfsPlus) continue;
      EXPECT_TRUE(liesWithin(partition.hfsPlus->offset, partition.hfsPlus->size, disk.bytes.size()));
    }
  }
}

}  // namespace
}  // namespace image::block
