#include "image/udif/aligned_appender.h"

#include <algorithm>

namespace image::udif {

AlignedAppender::Write AlignedAppender::place(Piece& piece) {
  const std::size_t front = Piece::kAlignment - tail_.size();
  std::ranges::copy(tail_, piece.bytes_.begin() + static_cast<std::ptrdiff_t>(front));
  const auto all = std::span(piece.bytes_).subspan(front, tail_.size() + piece.size_);
  const Write write{length_ - tail_.size(), all.first(all.size() - all.size() % Piece::kAlignment)};
  const auto rest = all.subspan(write.bytes.size());
  tail_.assign(rest.begin(), rest.end());
  length_ += piece.size_;
  return write;
}

}  // namespace image::udif
