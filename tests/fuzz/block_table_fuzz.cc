// Seeds: tests/corpus/image/tables
#include <cstdlib>

#include "image/udif/format.h"

// A table that can be read can be written and read again, and does not change by it.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto table = image::udif::decodeTable(std::as_bytes(std::span(bytes, size)));
  if (!table) return 0;
  const auto written = image::udif::encodeTable(*table, 0);
  const auto again = image::udif::decodeTable(written);
  if (!again || image::udif::encodeTable(*again, 0) != written) std::abort();
  return 0;
}
