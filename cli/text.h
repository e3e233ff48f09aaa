#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/date.h"
#include "base/property_list.h"

namespace cli {

// Without what could move a terminal's cursor: control characters become "?", what is no UTF-8 U+FFFD.
std::string shownText(std::string_view text);

// JSON (RFC 8259) with keys in order; dates as "2026-11-21T03:47:55Z", what is no UTF-8 as U+FFFD, data in
// hexadecimal. Ends in a line feed.
std::string jsonText(const base::PropertyList& value);

// "2026-11-21 03:47:55" in the local time zone, rounded down to the second.
std::string localDateText(base::Date date);

// "1 file", "2 files".
std::string countText(std::uint64_t count, std::string_view noun);

// Rows in columns that are as wide as their widest cell, two blanks apart. Cells are shown as they stand; the
// columns named by `right` hold their texts at the right.
std::string tableText(const std::vector<std::vector<std::string>>& rows,
                      const std::vector<std::size_t>& right);

}  // namespace cli
