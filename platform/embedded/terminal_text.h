#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace platform::embedded {

// A text that a terminal only shows: control characters other than line feeds, which could move its cursor or
// worse, become "?", and what is no UTF-8 becomes U+FFFD.
std::string shownText(std::string_view text);

// The text with lines broken at blanks so that none is longer than this many characters, where it has blanks.
std::string wrappedText(std::string_view text, std::size_t columns);

}  // namespace platform::embedded
