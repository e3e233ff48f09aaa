#include "image/codec/zlib_codec.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <vector>

#include "base/byte_order.h"

namespace image::codec {
namespace {

struct FreeCompressor {
  void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};
struct FreeDecompressor {
  void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// Sampled bits for each byte above which deflate's own headers eat what Huffman coding could gain.
constexpr double kHopelessBits = 7.95;

double entropyBits(const std::array<std::uint32_t, 256>& counts, double total) {
  double bits = 0;
  for (const std::uint32_t count : counts)
    if (count != 0) bits -= count * std::log2(count / total);
  return bits / total;
}

// Pieces of a chunk are judged one by one: files of different kinds meet in it.
constexpr std::size_t kPieceBytes = 16 << 10;

// Whether the samples' bytes are as even as noise. The sum of squares of n evenly spread counts is about
// n + n^2 / 256; data that Huffman coding makes a tenth smaller has twice the second term.
bool looksLikeNoise(std::span<const std::byte> piece) {
  constexpr std::size_t kSamples = 8;
  constexpr std::size_t kSampleBytes = 256;
  constexpr double kCount = kSamples * kSampleBytes;
  constexpr double kMostSquares = kCount + 1.1 * kCount * kCount / 256;
  if (piece.size() < kSamples * kSampleBytes) return false;
  std::array<std::uint32_t, 256> counts{};
  const std::size_t step = (piece.size() - kSampleBytes) / (kSamples - 1);
  for (std::size_t i = 0; i < kSamples; ++i)
    for (const std::byte b : piece.subspan(i * step, kSampleBytes)) ++counts[std::to_integer<std::size_t>(b)];
  std::uint64_t squares = 0;
  for (const std::uint32_t count : counts) squares += std::uint64_t{count} * count;
  return static_cast<double>(squares) < kMostSquares;
}

// Makes a zlib stream (RFC 1950) of parts, each deflated by itself or stored, and ending at a whole byte.
class StreamOfParts {
 public:
  StreamOfParts(std::span<std::byte> into, std::vector<std::uint8_t>& levelBuffer)
      : into_(into), levelBuffer_(levelBuffer) {
    constexpr std::array kHeader{std::byte{0x78}, std::byte{0x01}};
    put(kHeader);
  }

  void store(std::span<const std::byte> part) {
    constexpr std::size_t kMostInBlock = 65'535;
    for (; !part.empty(); part = part.subspan(std::min(part.size(), kMostInBlock)))
      putBlock(part.first(std::min(part.size(), kMostInBlock)), std::byte{0});
  }

  void deflate(std::span<const std::byte> part) {
    if (!fits_) return;
    isal_zstream stream;
    isal_deflate_stateless_init(&stream);
    // The library leaves the window's size as it finds it; 0: the largest.
    stream.hist_bits = 0;
    stream.level = kLevel;
    stream.level_buf = levelBuffer_.data();
    stream.level_buf_size = static_cast<std::uint32_t>(levelBuffer_.size());
    stream.gzip_flag = IGZIP_DEFLATE;
    stream.end_of_stream = 0;
    stream.flush = FULL_FLUSH;
    // The library takes its input through a pointer to non-const and does not write to it.
    stream.next_in = const_cast<std::uint8_t*>(reinterpret_cast<const std::uint8_t*>(part.data()));
    stream.avail_in = static_cast<std::uint32_t>(part.size());
    stream.next_out = reinterpret_cast<std::uint8_t*>(into_.data() + used_);
    stream.avail_out = static_cast<std::uint32_t>(into_.size() - used_);
    fits_ = isal_deflate_stateless(&stream) == COMP_OK && stream.avail_in == 0;
    used_ += stream.total_out;
  }

  // The stream's length, or 0 when it did not fit.
  std::size_t finish(std::span<const std::byte> all) {
    putBlock({}, std::byte{1});
    std::array<std::byte, 4> sum;
    base::storeBigEndian(sum.data(), libdeflate_adler32(1, all.data(), all.size()));
    put(sum);
    return fits_ ? used_ : 0;
  }

  // Of ISA-L's: as fast as the first, and smaller by one part in thirty-five on texts.
  static constexpr int kLevel = 2;
  static constexpr std::size_t kLevelBufferBytes = ISAL_DEF_LVL2_DEFAULT;

 private:
  void put(std::span<const std::byte> bytes) {
    fits_ = fits_ && bytes.size() <= into_.size() - used_;
    if (!fits_) return;
    std::ranges::copy(bytes, into_.begin() + static_cast<std::ptrdiff_t>(used_));
    used_ += bytes.size();
  }

  void putBlock(std::span<const std::byte> bytes, std::byte isLast) {
    const auto low = static_cast<std::byte>(bytes.size());
    const auto high = static_cast<std::byte>(bytes.size() >> 8);
    put(std::array{isLast, low, high, ~low, ~high});
    put(bytes);
  }

  std::span<std::byte> into_;
  std::vector<std::uint8_t>& levelBuffer_;
  std::size_t used_ = 0;
  bool fits_ = true;
};

std::size_t compressFast(std::span<const std::byte> from, std::span<std::byte> into,
                         std::vector<std::uint8_t>& levelBuffer) {
  StreamOfParts stream(into, levelBuffer);
  const auto pieceAt = [&](std::size_t at) {
    return from.subspan(at, std::min(kPieceBytes, from.size() - at));
  };
  for (std::size_t begin = 0; begin < from.size();) {
    const bool isNoise = looksLikeNoise(pieceAt(begin));
    std::size_t end = begin;
    do end += pieceAt(end).size();
    while (end < from.size() && looksLikeNoise(pieceAt(end)) == isNoise);
    const auto part = from.subspan(begin, end - begin);
    isNoise ? stream.store(part) : stream.deflate(part);
    begin = end;
  }
  return stream.finish(from);
}

}  // namespace

struct ZlibCompressor::State {
  std::unique_ptr<libdeflate_compressor, FreeCompressor> slow;
  std::vector<std::uint8_t> levelBuffer;
};

ZlibCompressor::ZlibCompressor(int level) : state_(std::make_unique<State>()) {
  constexpr int kLastOfISAL = 2;
  // The library's own levels go on to 12.
  constexpr int kSmallestOfLibdeflate = 12;
  if (level > kLastOfISAL)
    state_->slow.reset(libdeflate_alloc_compressor(level == kSmallest ? kSmallestOfLibdeflate : level));
  else
    state_->levelBuffer.resize(StreamOfParts::kLevelBufferBytes);
}

ZlibCompressor::~ZlibCompressor() = default;

std::size_t ZlibCompressor::compress(std::span<const std::byte> from, std::span<std::byte> into) {
  if (state_->slow)
    return libdeflate_zlib_compress(state_->slow.get(), from.data(), from.size(), into.data(), into.size());
  return compressFast(from, into, state_->levelBuffer);
}

struct ZlibDecompressor::State {
  std::unique_ptr<libdeflate_decompressor, FreeDecompressor> library{libdeflate_alloc_decompressor()};
};

ZlibDecompressor::ZlibDecompressor() : state_(std::make_unique<State>()) {}
ZlibDecompressor::~ZlibDecompressor() = default;

bool ZlibDecompressor::decompress(std::span<const std::byte> from, std::span<std::byte> into) {
  std::size_t taken = 0;
  std::size_t made = 0;
  return libdeflate_zlib_decompress_ex(state_->library.get(), from.data(), from.size(), into.data(),
                                       into.size(), &taken, &made) == LIBDEFLATE_SUCCESS &&
         taken == from.size() && made == into.size();
}

bool looksCompressible(std::span<const std::byte> bytes) {
  constexpr std::size_t kSamples = 64;
  constexpr std::size_t kSampleBytes = 512;
  if (bytes.size() <= kSamples * kSampleBytes) return true;
  std::array<std::uint32_t, 256> counts{};
  const std::size_t step = (bytes.size() - kSampleBytes) / (kSamples - 1);
  for (std::size_t i = 0; i < kSamples; ++i)
    for (const std::byte b : bytes.subspan(i * step, kSampleBytes)) ++counts[std::to_integer<std::size_t>(b)];
  return entropyBits(counts, kSamples * kSampleBytes) < kHopelessBits;
}

}  // namespace image::codec
