// Seeds: tests/corpus/image/originals
#include <cstdlib>

#include "image/hfs/original.h"

// What can be read can be written and read again, and does not change by it.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto original = image::hfs::decodeOriginal(std::as_bytes(std::span(bytes, size)));
  if (!original) return 0;
  const auto written = image::hfs::encodeOriginal(*original);
  const auto again = image::hfs::decodeOriginal(written);
  if (!again || image::hfs::encodeOriginal(*again) != written) std::abort();
  return 0;
}
