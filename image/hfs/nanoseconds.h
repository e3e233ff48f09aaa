#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "image/hfs/tree.h"

namespace image::hfs {

// The fractions of all dates, which the volume's own fields cannot hold: 16 bytes "stashwick.nsec.1", then
// for each item 16 bytes, the nanoseconds of created, modified, changed, accessed, big-endian; the root
// folder first, then catalog nodes 16, 17, ... up to the last. They stand in the volume's startup file, which
// belongs to no item: an attribute would show as a stray file in programs that unpack attributes.

// 0 where all dates are whole seconds.
std::uint64_t nanosecondsBytes(const Tree& tree);
// Any part of them, wholly inside nanosecondsBytes().
void readNanoseconds(const Tree& tree, std::uint64_t offset, std::span<std::byte> into);

}  // namespace image::hfs
