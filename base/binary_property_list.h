#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "base/property_list.h"
#include "base/result.h"

namespace base {

// Reads the binary form ("bplist00") into a tree. An object that is referred to several times is copied to
// each place; a file whose references multiply beyond a fixed multiple of its own size is refused, as are
// references that loop, nesting deeper than kMaxPropertyListDepth, nulls, sets, keys that are no strings, and
// integers that do not fit 64 signed bits (a UID's: 32 unsigned). Unpaired UTF-16 surrogates become U+FFFD.
// Of a key given twice the last value counts.
Result<PropertyList> parseBinaryPropertyList(std::span<const std::byte> bytes);

// The binary form. Equal strings are stored once; invalid UTF-8 in a string becomes U+FFFD.
std::vector<std::byte> writeBinaryPropertyList(const PropertyList& value);

// Reads either form, told apart by the first bytes.
Result<PropertyList> parsePropertyList(std::span<const std::byte> bytes);

}  // namespace base
