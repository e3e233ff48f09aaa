#include "image/codec/xz_decompressor.h"

#include <lzma.h>

namespace image::codec {

struct XzDecompressor::State {
  State() = default;
  ~State() { lzma_end(&stream); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  lzma_stream stream = LZMA_STREAM_INIT;
};

XzDecompressor::XzDecompressor() : state_(std::make_unique<State>()) {}
XzDecompressor::~XzDecompressor() = default;

bool XzDecompressor::decompress(std::span<const std::byte> from, std::span<std::byte> into) {
  lzma_stream& stream = state_->stream;
  if (lzma_stream_decoder(&stream, kMostMemory, 0) != LZMA_OK) return false;
  stream.next_in = reinterpret_cast<const std::uint8_t*>(from.data());
  stream.avail_in = from.size();
  stream.next_out = reinterpret_cast<std::uint8_t*>(into.data());
  stream.avail_out = into.size();
  lzma_ret state = LZMA_OK;
  // A call without progress after one without progress gives LZMA_BUF_ERROR.
  while (state == LZMA_OK) state = lzma_code(&stream, LZMA_FINISH);
  return state == LZMA_STREAM_END && stream.avail_in == 0 && stream.avail_out == 0;
}

}  // namespace image::codec
