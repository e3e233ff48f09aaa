#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace image::hfs {

constexpr std::size_t kMaxNameUnits = 255;

enum class NameOrder { caseFolding, binary };

// How the volume stores a file name: UTF-16, canonically decomposed by Unicode 3.2 but for U+2000-2FFF,
// U+F900-FAFF and U+2F800-2FAFF (Apple technical note TN1150 and technical Q&A QA1173), with ':' and '/'
// exchanged. nullopt when the bytes are not UTF-8 or when nothing of at most 255 units can hold them.
std::optional<std::u16string> storedName(std::string_view fileName);

// The other way: what a POSIX system calls the file of that stored name, composed again (NFC) as names on
// other systems mostly are. Letters that TN1150's own table decomposes as Unicode did once (Greek accents,
// some Cyrillic, Thai and Lao ones) come back too.
std::string composedFileName(std::u16string_view storedName);

// Order of catalog keys: TN1150's case folding with its ignorable characters, or plain unit values.
std::strong_ordering compareNames(std::u16string_view a, std::u16string_view b, NameOrder order);

// The folded form whose unit-by-unit order is compareNames' order: no ignorable characters, lower case.
std::u16string foldedName(std::u16string_view name);

}  // namespace image::hfs
