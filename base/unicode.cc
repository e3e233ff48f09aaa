#include "base/unicode.h"

namespace base {
namespace {

constexpr bool isHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
constexpr bool isLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

}  // namespace

UTF8Character decodeUTF8(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {lead, 1, true};
  if (lead < 0xC2 || lead > 0xF4) return {};
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (length > text.size() - at) return {};
  char32_t scalar = lead & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return {};
    scalar = scalar << 6 | (byte(i) & 0x3F);
  }
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (scalar < kSmallest[length] || scalar > 0x10FFFF || (scalar >= 0xD800 && scalar < 0xE000)) return {};
  return {scalar, length, true};
}

void appendUTF8(std::string& text, char32_t scalar) {
  const auto continuation = [&](int shift) { return static_cast<char>(0x80 | (scalar >> shift & 0x3F)); };
  if (scalar < 0x80) {
    text += static_cast<char>(scalar);
  } else if (scalar < 0x800) {
    text += {static_cast<char>(0xC0 | scalar >> 6), continuation(0)};
  } else if (scalar < 0x10000) {
    text += {static_cast<char>(0xE0 | scalar >> 12), continuation(6), continuation(0)};
  } else {
    text += {static_cast<char>(0xF0 | scalar >> 18), continuation(12), continuation(6), continuation(0)};
  }
}

std::u16string utf16FromUTF8(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const UTF8Character character = decodeUTF8(text, at);
    at += character.length;
    if (character.scalar < 0x10000) {
      units += static_cast<char16_t>(character.scalar);
    } else {
      units += static_cast<char16_t>(0xD7C0 + (character.scalar >> 10));
      units += static_cast<char16_t>(0xDC00 + (character.scalar & 0x3FF));
    }
  }
  return units;
}

std::string utf8FromUTF16(std::u16string_view units) {
  std::string text;
  text.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    char32_t scalar = units[i];
    if (isHighSurrogate(scalar) && i + 1 < units.size() && isLowSurrogate(units[i + 1])) {
      scalar = 0x10000 + ((scalar - 0xD800) << 10) + (units[++i] - 0xDC00u);
    } else if (isHighSurrogate(scalar) || isLowSurrogate(scalar)) {
      scalar = kReplacementCharacter;
    }
    appendUTF8(text, scalar);
  }
  return text;
}

}  // namespace base
