// Seeds: tests/corpus/plist
#include <cstdlib>

#include "base/binary_property_list.h"
#include "base/xml_property_list.h"

// What can be read can be written and read again, in both forms, and the binary form does not change by it.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto value = base::parsePropertyList(std::as_bytes(std::span(bytes, size)));
  if (!value) return 0;
  const auto binary = base::writeBinaryPropertyList(*value);
  const auto again = base::parseBinaryPropertyList(binary);
  if (!again || base::writeBinaryPropertyList(*again) != binary) std::abort();
  if (!base::parseXMLPropertyList(base::writeXMLPropertyList(*value))) std::abort();
  return 0;
}
