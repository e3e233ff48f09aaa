// Seeds: tests/corpus/image/volumes
#include "image/volume.h"
#include "tests/image/walk_volume.h"

// Whatever stands in a volume, everything in it can be asked for; the answers are values or errors.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto all = std::as_bytes(std::span(bytes, size));
  auto image = image::OpenedImage::plain(
      std::make_unique<base::MemoryRandomAccess>(std::vector<std::byte>(all.begin(), all.end())));
  if (!image) return 0;
  const auto volume = image::Volume::open(*std::move(image), {.cacheBytes = 1 << 20, .workers = 1});
  if (volume) image::VolumeWalk(**volume).run();
  return 0;
}
