// Seeds: tests/corpus/image/volumes
#include "image/hfs/volume_check.h"

// Whatever stands in a volume header, a B-tree or the attributes, the check ends and stays inside the volume.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const base::SpanRandomAccess volume(std::as_bytes(std::span(bytes, size)));
  static_cast<void>(image::hfs::checkVolume(image::block::FileDisk(volume)));
  return 0;
}
