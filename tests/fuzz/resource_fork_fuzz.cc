// Seeds: tests/corpus/image/forks
#include "image/udif/format.h"
#include "image/udif/resource_fork.h"

// Any resource fork is refused or gives tables, no more of them than it has bytes for.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto list = image::udif::readResourceFork(std::as_bytes(std::span(bytes, size)));
  if (list) static_cast<void>(image::udif::decodeResources(*list));
  return 0;
}
