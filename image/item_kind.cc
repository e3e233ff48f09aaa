#include "image/item_kind.h"

#include "image/hfs/tree.h"

namespace image {

std::optional<ItemKind> kindOfMode(std::uint32_t mode) {
  switch (mode & hfs::mode::kType) {
    case hfs::mode::kFolder:
      return ItemKind::folder;
    case hfs::mode::kRegular:
      return ItemKind::file;
    case hfs::mode::kSymbolicLink:
      return ItemKind::symbolicLink;
    case hfs::mode::kFIFO:
      return ItemKind::fifo;
    case hfs::mode::kSocket:
      return ItemKind::socket;
    case hfs::mode::kCharacterDevice:
      return ItemKind::characterDevice;
    case hfs::mode::kBlockDevice:
      return ItemKind::blockDevice;
    default:
      return std::nullopt;
  }
}

}  // namespace image
