#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
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

// For readers of any volume: what the entries are long, whether the table begins with these bytes, and where
// in it the entry of a catalog number stands; nullopt for a number that has none.
inline constexpr std::size_t kNanosecondsEntryBytes = 16;
bool isNanosecondsSignature(std::span<const std::byte> bytes);
std::optional<std::uint64_t> nanosecondsOffset(std::uint32_t catalogID);

}  // namespace image::hfs
