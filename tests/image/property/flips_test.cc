#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <random>
#include <unistd.h>
#include <vector>

#include "image/create.h"
#include "image/open.h"
#include "image/verify.h"
#include "tests/tools/scratch_folder.h"

namespace image {
namespace {

// Bytes in which one is another.
class FlippedFile : public base::RandomAccess {
 public:
  FlippedFile(std::span<const std::byte> bytes, std::size_t at, std::byte change)
      : bytes_(bytes), at_(at), change_(change) {}
  std::uint64_t size() const override { return bytes_.size(); }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    if (!base::SpanRandomAccess(bytes_).read(offset, into)) return false;
    if (at_ >= offset && at_ - offset < into.size()) into[at_ - offset] ^= change_;
    return true;
  }

 private:
  std::span<const std::byte> bytes_;
  std::size_t at_;
  std::byte change_;
};

// One bit, another one from byte to byte.
std::byte changeAt(std::size_t at) { return std::byte{1} << at % 8; }

struct Range {
  std::size_t from;
  std::size_t to;
};
bool isIn(std::span<const Range> ranges, std::size_t at) {
  return std::ranges::any_of(ranges, [at](const Range& r) { return r.from <= at && at < r.to; });
}

// The trailer's bytes without a meaning to a reader.
constexpr Range kIdleInTrailer[]{
    {12, 24},    // flags; where the data fork stands while an image of several files is being put together
    {40, 64},    // resource fork, which there is none of; number and count of files
    {64, 80},    // random identifier
    {92, 216},   // room of the data fork's sum
    {231, 232},  // one more or less of the property list's length, which ends with a line feed
    {232, 352},  // reserved
    {364, 488},  // room of the master sum
    {488, 492},  // variant: readers go by the tables
    {500, 512},  // reserved
};

bool isStored(const udif::Run& run) { return run.type != udif::RunType::zeros; }
// Zeros stand nowhere in the data fork.
bool isSameRun(const udif::Run& a, const udif::Run& b) {
  return a.type == b.type && a.firstSector == b.firstSector && a.sectorCount == b.sectorCount &&
         (!isStored(a) || (a.offset == b.offset && a.length == b.length));
}
bool hasStoredRuns(const udif::BlockTable& table) { return std::ranges::any_of(table.runs, isStored); }
// All that a reader goes by.
bool isSameTable(const udif::BlockTable& a, const udif::BlockTable& b) {
  return a.firstSector == b.firstSector && a.sectorCount == b.sectorCount &&
         (!hasStoredRuns(a) || a.dataOffset == b.dataOffset) && a.checksum == b.checksum &&
         std::ranges::equal(a.runs, b.runs, isSameRun);
}
bool meansTheSame(const udif::Image& a, const udif::Image& b) {
  return a.trailer().dataForkOffset == b.trailer().dataForkOffset &&
         a.trailer().dataForkLength == b.trailer().dataForkLength &&
         (!a.trailer().dataChecksum || a.trailer().dataChecksum == b.trailer().dataChecksum) &&
         (!a.trailer().masterChecksum || a.trailer().masterChecksum == b.trailer().masterChecksum) &&
         a.trailer().sectorCount == b.trailer().sectorCount &&
         std::ranges::equal(a.tables(), b.tables(), isSameTable);
}

bool isSound(const base::Result<std::unique_ptr<OpenedImage>>& opened) {
  return opened && checkImage(**opened, 1, nullptr);
}

std::vector<std::byte> makeImage() {
  const ScratchFolder scratch;
  scratch.write("source/file", "content");
  const std::string path = scratch / "image.dmg";
  EXPECT_TRUE(createImage({.source = scratch / "source", .volumeName = "V", .image = path, .workers = 1}));
  const std::string text = readFile(path);
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

class Flips : public testing::Test {
 protected:
  Flips() {
    auto opened = OpenedImage::plain(std::make_unique<base::SpanRandomAccess>(plain));
    EXPECT_TRUE(opened);
    whole = *std::move(opened);
    listOffset = whole->udif()->trailer().propertyListOffset;
    trailerOffset = plain.size() - udif::kTrailerBytes;
  }
  // Dates and identifiers in the image are others in every run.
  void TearDown() override {
    if (!HasFailure()) return;
    const std::string kept = testing::TempDir() + "flips-" + std::to_string(::getpid()) + ".dmg";
    std::ofstream(kept, std::ios::binary)
        .write(reinterpret_cast<const char*>(plain.data()), std::ssize(plain));
    std::cout << "the image is kept as " << kept << "\n";
  }
  // White space of the property list, the names of its entries and what else only describes has no meaning
  // either; whether the tables are the same shows that it was nothing else.
  bool isIdle(std::size_t at) const {
    return at >= trailerOffset ? isIn(kIdleInTrailer, at - trailerOffset) : at >= listOffset;
  }

  const std::vector<std::byte> plain = makeImage();
  std::unique_ptr<OpenedImage> whole;
  std::size_t listOffset = 0;
  std::size_t trailerOffset = 0;
};

TEST_F(Flips, anywhereInAnImageAreNoticedOrMeanNothing) {
  std::size_t noticed = 0;
  for (std::size_t at = 0; at < plain.size(); ++at) {
    const auto opened = OpenedImage::plain(std::make_unique<FlippedFile>(plain, at, changeAt(at)));
    if (!isSound(opened)) {
      ++noticed;
      continue;
    }
    EXPECT_TRUE(isIdle(at)) << "at " << at;
    EXPECT_TRUE(meansTheSame(*(*opened)->udif(), *whole->udif())) << "at " << at;
  }
  EXPECT_GT(noticed, plain.size() / 2);
}

// The header's bytes without a meaning: sizes, modes and algorithms that this version of the container leaves
// no choice of, an identifier, room that nothing takes.
constexpr Range kIdleInHeader[]{
    {12, 20},        // size of the IVs, mode
    {28, 52},        // how the IVs are made; random identifier
    {72, 76},        // number of keys: what follows the one is none
    {95, 96},        // size of the key's entry, behind what is used of it
    {100, 104},      // hash of the key derivation
    {132, 144},      // room of the salt
    {144, 148},      // size of the key's IV
    {156, 180},      // room of the key's IV
    {180, 196},      // cipher of the keys
    {248, 122'880},  // room of the keys, and up to the data
};
// One bit of it asks for sixteen million rounds more, which only take time.
constexpr std::size_t kMostSignificantOfRounds = 104;
// As much of the header as is tried; zeros follow.
constexpr std::size_t kHeadBytes = 4096;

class EncryptedFlips : public Flips {
 protected:
  EncryptedFlips() {
    header.dataBytes = plain.size();
    header.keyEntries = {crypt::ContainerHeader::wrap(keys, password, 1000, random)};
    std::vector<std::byte> blocks = plain;
    blocks.resize((blocks.size() + header.blockBytes - 1) / header.blockBytes * header.blockBytes);
    keys.encrypt(0, header.blockBytes, blocks);
    file = header.encode(std::array<std::byte, 16>{});
    file.insert(file.end(), blocks.begin(), blocks.end());
  }
  bool saysTheSame(const crypt::ContainerHeader& found) const {
    return found.method == header.method && found.blockBytes == header.blockBytes &&
           found.dataBytes == header.dataBytes && found.dataOffset == header.dataOffset &&
           found.keyEntries == header.keyEntries;
  }
  // With a byte changed; what says the same as the whole header opens the same image.
  base::Result<std::unique_ptr<OpenedImage>> openWithPassword(std::size_t at) const {
    std::vector<std::byte> head(file.begin(), file.begin() + kHeadBytes);
    if (at < head.size()) head[at] ^= changeAt(at);
    auto found = crypt::ContainerHeader::decode(head);
    if (!found) return found.error();
    if (saysTheSame(*found)) return OpenedImage::plain(std::make_unique<base::SpanRandomAccess>(plain));
    auto opened = found->unwrap(password);
    if (!opened) return base::Error{kAuthenticationError};
    return OpenedImage::withKeys(std::make_unique<FlippedFile>(file, at, changeAt(at)), *found,
                                 std::move(*opened));
  }

  crypt::RandomBytes random = [generator = std::mt19937(5)](std::span<std::byte> into) mutable {
    for (auto& b : into) b = static_cast<std::byte>(generator());
  };
  const base::Secret password{"secret"};
  const crypt::ContainerKeys keys = crypt::ContainerKeys::random(crypt::Method::aes128, random);
  crypt::ContainerHeader header{.method = crypt::Method::aes128};
  std::vector<std::byte> file;

  // A bit that flips makes its cipher block of 16 bytes random, some of which are what they were by chance,
  // and flips one bit of the next one. What follows the image in its last block is nobody's.
  bool damagesOnlyWhatIsIdle(std::size_t at) const {
    const FlippedFile flipped(file, at, changeAt(at));
    const auto decrypted = udif::DecryptedFile::open(flipped, header, keys.duplicate());
    std::vector<std::byte> bytes(plain.size());
    if (!decrypted || !(*decrypted)->read(0, bytes)) return false;
    for (std::size_t inside = 0; inside < plain.size(); ++inside)
      if (bytes[inside] != plain[inside] && !isIdle(inside)) return false;
    return true;
  }
};

TEST_F(EncryptedFlips, anywhereInTheHeaderAreNoticedOrMeanNothing) {
  ASSERT_TRUE(isSound(
      OpenedImage::withKeys(std::make_unique<base::SpanRandomAccess>(file), header, keys.duplicate())));
  std::size_t noticed = 0;
  for (std::size_t at = 0; at < kHeadBytes; ++at) {
    if (at == kMostSignificantOfRounds) continue;
    const auto opened = openWithPassword(at);
    const bool sound = opened && ((*opened)->container() == std::nullopt || isSound(opened));
    EXPECT_EQ(sound, isIn(kIdleInHeader, at)) << "at " << at;
    noticed += !sound;
  }
  EXPECT_GT(noticed, 100u);
}

TEST_F(EncryptedFlips, anywhereInTheDataAreNoticedOrMeanNothing) {
  for (std::size_t at = header.dataOffset; at < header.dataOffset + plain.size(); ++at) {
    const auto opened = OpenedImage::withKeys(std::make_unique<FlippedFile>(file, at, changeAt(at)), header,
                                              keys.duplicate());
    if (!isSound(opened)) continue;
    EXPECT_TRUE(damagesOnlyWhatIsIdle(at)) << "at " << at;
    EXPECT_TRUE(meansTheSame(*(*opened)->udif(), *whole->udif())) << "at " << at;
  }
}

}  // namespace
}  // namespace image
