#pragma once

#include <string>
#include <string_view>

#include "base/property_list.h"
#include "base/result.h"

namespace base {

// Reads the XML form: UTF-8 with or without a byte order mark, one <plist> element holding one value. Refused
// with an Error that names the line: anything that is not well-formed, an encoding other than UTF-8, a
// DOCTYPE with an internal subset, entities beyond the five of XML and character references, unknown
// elements, integers that do not fit 64 signed bits, nesting deeper than kMaxPropertyListDepth. Of a key
// given twice the last value counts. A dictionary of the one key "CF$UID" with an integer of 32 bits reads as
// a PropertyList::UID.
Result<PropertyList> parseXMLPropertyList(std::string_view text);

// The XML form as the platform's own writer lays it out, ending in a newline. Dates are whole seconds,
// rounded down, held within the years 1 to 9999. A UID becomes a dictionary with the key "CF$UID". What XML
// cannot hold of a string (invalid UTF-8, most control characters) becomes U+FFFD.
std::string writeXMLPropertyList(const PropertyList& value);

}  // namespace base
