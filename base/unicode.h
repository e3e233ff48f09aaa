#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace base {

constexpr char32_t kReplacementCharacter = 0xFFFD;

// The character that starts at text[at] and how many bytes it takes. Where the bytes are not UTF-8 (overlong
// forms, surrogates and values beyond U+10FFFF included): valid is false, the scalar is U+FFFD and one byte
// is taken.
struct UTF8Character {
  char32_t scalar = kReplacementCharacter;
  std::size_t length = 1;
  bool valid = false;
};
UTF8Character decodeUTF8(std::string_view text, std::size_t at);

void appendUTF8(std::string& text, char32_t scalar);

// Each invalid byte, and each unpaired surrogate, becomes U+FFFD.
std::u16string utf16FromUTF8(std::string_view text);
std::string utf8FromUTF16(std::u16string_view units);

inline bool isValidUTF8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto character = decodeUTF8(text, at);
    if (!character.valid) return false;
    at += character.length;
  }
  return true;
}

// The text with each invalid byte replaced by U+FFFD.
inline std::string repairedUTF8(std::string_view text) {
  std::string repaired;
  repaired.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const auto character = decodeUTF8(text, at);
    appendUTF8(repaired, character.scalar);
    at += character.length;
  }
  return repaired;
}

}  // namespace base
