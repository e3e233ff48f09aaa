#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "image/open.h"

namespace image {

// Seconds and nanoseconds since 1970, seconds below zero before.
struct Instant {
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;
};

enum class ItemKind { folder, file, symbolicLink, fifo, socket, characterDevice, blockDevice };

// One file, folder or other thing in a volume, as the source had it wherever the image kept that. Hard links
// are several names of one item.
struct Item {
  std::uint32_t id = 0;  // unique in the volume
  ItemKind kind = ItemKind::file;
  std::uint16_t permissions = 0;  // the lower 12 bits of a mode
  std::uint32_t user = 0;
  std::uint32_t group = 0;
  std::uint32_t links = 1;
  std::uint64_t size = 0;        // bytes that reading gives; a symbolic link's: of its target
  std::uint64_t storedSize = 0;  // bytes that it takes on the volume
  std::uint32_t device = 0;      // of a device: major in the upper 12 bits, minor in the lower 20
  Instant created{};
  Instant modified{};
  Instant changed{};
  Instant accessed{};
};

// What a volume says of itself as a whole.
struct VolumeFacts {
  std::string name;
  bool isCaseSensitive = false;
  std::uint64_t bytes = 0;
  std::uint64_t freeBytes = 0;
  std::uint32_t blockBytes = 0;
  std::uint32_t files = 0;
  std::uint32_t folders = 0;
};

// Called on the calling thread; an Error ends the listing and is returned.
using Visitor = std::function<base::Result<void>(std::string_view name, const Item& item)>;

// The HFS+ or HFSX volume in an image, for reading. Any number of threads may call. Every error says what was
// looked at and what is wrong with it; damaged images give errors, never more than that.
class Volume {
 public:
  struct Options {
    // Of decompressed chunks and nodes that are kept.
    std::uint64_t cacheBytes = std::uint64_t{64} << 20;
    // Threads that decompress ahead of sequential reading; 0: one for each processor.
    unsigned workers = 0;
  };

  // The image's first HFS+ volume, wherever its partition map puts it.
  static base::Result<std::unique_ptr<Volume>> open(std::unique_ptr<OpenedImage> image, Options options);
  static base::Result<std::unique_ptr<Volume>> open(std::unique_ptr<OpenedImage> image) {
    return open(std::move(image), Options{});
  }
  virtual ~Volume() = default;

  virtual const VolumeFacts& facts() const = 0;
  virtual std::uint32_t rootID() const = 0;

  // By the name that list() gives. nullopt when there is none.
  virtual base::Result<std::optional<Item>> lookup(std::uint32_t folder, std::string_view name) const = 0;
  virtual base::Result<Item> item(std::uint32_t id) const = 0;
  // Each name of a folder once, in the volume's order, without "." and "..", and without what the file system
  // keeps for itself. Names are bytes as the source had them, else UTF-8, composed, with ':' and '/'
  // exchanged.
  virtual base::Result<void> list(std::uint32_t folder, const Visitor& visit) const = 0;

  virtual base::Result<std::string> linkTarget(std::uint32_t id) const = 0;
  // Of a file's data; fewer bytes than asked for only at its end.
  virtual base::Result<std::size_t> read(std::uint32_t id, std::uint64_t offset,
                                         std::span<std::byte> into) const = 0;

  // Extended attributes, with the names that they had on the source ("user.x" on Linux).
  virtual base::Result<std::vector<std::string>> attributeNames(std::uint32_t id) const = 0;
  // nullopt when it has none of that name.
  virtual base::Result<std::optional<std::vector<std::byte>>> attribute(std::uint32_t id,
                                                                        std::string_view name) const = 0;
};

}  // namespace image
