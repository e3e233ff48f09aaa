#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "base/result.h"
#include "image/block/output.h"

namespace image::udif {

// Bytes with room in front of them, so that what is left of the piece before can be put there.
class Piece {
 public:
  static constexpr std::size_t kAlignment = 4096;

  explicit Piece(std::size_t capacity) : bytes_(kAlignment + capacity) {}

  // All of the capacity, to be filled.
  std::span<std::byte> space() { return std::span(bytes_).subspan(kAlignment); }
  void setSize(std::size_t size) { size_ = size; }
  std::span<const std::byte> content() const { return std::span(bytes_).subspan(kAlignment, size_); }

 private:
  friend class AlignedAppender;

  std::vector<std::byte> bytes_;
  std::size_t size_ = 0;
};

// Turns pieces of any length into writes at aligned places of aligned length. place() is quick and made for
// one caller at a time; the write that it gives may be carried out by any thread.
class AlignedAppender {
 public:
  struct Write {
    std::uint64_t offset = 0;
    std::span<std::byte> bytes;
  };

  // The write that is now due, inside the piece's own memory: the piece must live until it is carried out.
  Write place(Piece& piece);
  // What is left at the end.
  Write finish() { return {length_ - tail_.size(), tail_}; }
  std::uint64_t length() const { return length_; }

 private:
  std::uint64_t length_ = 0;
  std::vector<std::byte> tail_;
};

}  // namespace image::udif
