// Seeds: tests/corpus/image/images
#include "image/open.h"
#include "image/verify.h"

// Trailer, property list, block tables, chunks and the volume in them: whatever they say, the check ends.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto given = std::as_bytes(std::span(bytes, size));
  const auto image = image::OpenedImage::plain(std::make_unique<base::SpanRandomAccess>(given));
  if (image) static_cast<void>(image::checkImage(**image, 1, nullptr));
  return 0;
}
