#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/hfs/tree.h"

namespace image::hfs {

// What the volume's own fields cannot say of an item. It travels in one extended attribute, which only items
// have that need it; whoever mounts the volume gives the item back with it.
struct Original {
  static constexpr std::u16string_view kAttributeName = u"stashwick.original";

  // The bytes of the source's name, where the stored one does not lead back to them.
  std::optional<std::string> name{};
  // Where one of the dates is outside the volume's range.
  std::optional<Times> times{};
  // A device's number, major in the upper 12 bits, where the major number is above 255.
  std::optional<std::uint32_t> device{};

  bool empty() const { return !name && !times && !device; }
};

// Fields, each as a 32-bit tag, a 32-bit length and that many bytes, big-endian: 1 name; 2 the dates created,
// modified, changed, accessed as signed 64-bit nanoseconds since 1970; 3 device. A reader passes over tags
// that it does not know.
std::vector<std::byte> encodeOriginal(const Original& original);
// nullopt when the bytes are damaged.
std::optional<Original> decodeOriginal(std::span<const std::byte> bytes);

// What has to be kept of a node of a finished tree.
Original originalOf(const Tree& tree, NodeIndex node);

}  // namespace image::hfs
