#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace image::codec {

// How much time to spend on a smaller result. `fast` is one ISA-L pass over what
// does not look like noise, and runs on processors without vectors too; `small` is libdeflate's level 6.
enum class Effort { fast, small };

// Makes zlib streams (RFC 1950). One thread at a time; keeps its working memory between calls.
class ZlibCompressor {
 public:
  explicit ZlibCompressor(Effort effort);
  ~ZlibCompressor();

  // The stream's length, or 0 when it does not fit in `into`.
  std::size_t compress(std::span<const std::byte> from, std::span<std::byte> into);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// One thread at a time.
class ZlibDecompressor {
 public:
  ZlibDecompressor();
  ~ZlibDecompressor();

  // True when `from` is one whole valid stream that gives exactly into.size() bytes.
  [[nodiscard]] bool decompress(std::span<const std::byte> from, std::span<std::byte> into);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// False when a look at samples of the bytes says that deflate would not gain: photographs, films, archives.
bool looksCompressible(std::span<const std::byte> bytes);

}  // namespace image::codec
