#include "image/codec/zlib_codec.h"

#include <array>
#include <cmath>
#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <vector>

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

}  // namespace

struct ZlibCompressor::State {
  std::unique_ptr<libdeflate_compressor, FreeCompressor> slow;
  std::vector<std::uint8_t> levelBuffer;
};

ZlibCompressor::ZlibCompressor(Effort effort) : state_(std::make_unique<State>()) {
  if (effort == Effort::small)
    state_->slow.reset(libdeflate_alloc_compressor(6));
  else
    state_->levelBuffer.resize(ISAL_DEF_LVL1_DEFAULT);
}

ZlibCompressor::~ZlibCompressor() = default;

std::size_t ZlibCompressor::compress(std::span<const std::byte> from, std::span<std::byte> into) {
  if (state_->slow)
    return libdeflate_zlib_compress(state_->slow.get(), from.data(), from.size(), into.data(), into.size());
  isal_zstream stream;
  isal_deflate_stateless_init(&stream);
  stream.level = 1;
  stream.level_buf = state_->levelBuffer.data();
  stream.level_buf_size = static_cast<std::uint32_t>(state_->levelBuffer.size());
  stream.gzip_flag = IGZIP_ZLIB;
  stream.end_of_stream = 1;
  stream.flush = NO_FLUSH;
  // The library takes its input through a pointer to non-const and does not write to it.
  stream.next_in = const_cast<std::uint8_t*>(reinterpret_cast<const std::uint8_t*>(from.data()));
  stream.avail_in = static_cast<std::uint32_t>(from.size());
  stream.next_out = reinterpret_cast<std::uint8_t*>(into.data());
  stream.avail_out = static_cast<std::uint32_t>(into.size());
  if (isal_deflate_stateless(&stream) != COMP_OK || stream.avail_in != 0) return 0;
  return stream.total_out;
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
