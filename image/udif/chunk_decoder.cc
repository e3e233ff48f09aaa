#include "image/udif/chunk_decoder.h"

#include <charconv>
#include <optional>
#include <string>

#include "image/udif/run_sums.h"

namespace image::udif {
namespace {

std::optional<codec::Compression> compressionOf(RunType type) {
  switch (type) {
    case RunType::adc:
      return codec::Compression::adc;
    case RunType::zlib:
      return codec::Compression::zlib;
    case RunType::bzip2:
      return codec::Compression::bzip2;
    case RunType::lzma:
      return codec::Compression::lzma;
    default:
      return std::nullopt;
  }
}

std::string typeText(RunType type) {
  std::array<char, 8> digits;
  const auto end = std::to_chars(digits.begin(), digits.end(), static_cast<std::uint32_t>(type), 16).ptr;
  const std::string number = "0x" + std::string(digits.begin(), end);
  return type == RunType::lzfse ? "LZFSE (" + number + ")" : number;
}

std::string placeOf(const Run& run, std::string_view region) {
  return std::string(region) + ", sector " + std::to_string(run.firstSector);
}

}  // namespace

base::Result<void> checkCompressed(const Run& run, std::string_view region) {
  if (!compressionOf(run.type))
    return base::Error{"chunk type " + typeText(run.type) + " is not supported (" + placeOf(run, region) +
                       ")"};
  if (run.sectorCount > kMostRunSectors)
    return base::Error{"a compressed chunk of more than 256 MiB is not supported (" + placeOf(run, region) +
                       ")"};
  // No compression makes its input twice as long, but for what each stream has around it.
  constexpr std::uint64_t kAround = 1 << 16;
  if (run.length > 2 * run.sectorCount * 512 + kAround) return damagedRun(run, region);
  return {};
}

base::Result<void> ChunkDecoder::decode(const Run& run, std::string_view region,
                                        std::span<const std::byte> stored, std::span<std::byte> plain) {
  if (auto checked = checkCompressed(run, region); !checked) return checked;
  const auto compression = *compressionOf(run.type);
  auto& decompressor = decompressors_[static_cast<std::size_t>(compression)];
  if (!decompressor) decompressor = codec::makeDecompressor(compression);
  if (plain.size() == run.sectorCount * 512 && decompressor->decompress(stored, plain)) return {};
  return damagedRun(run, region);
}

}  // namespace image::udif
