#include "platform/embedded/terminal_text.h"

#include "base/unicode.h"

namespace platform::embedded {
namespace {

bool isControl(char32_t scalar) { return scalar < 0x20 || (scalar >= 0x7F && scalar < 0xA0); }

std::size_t charactersIn(std::string_view text) {
  std::size_t count = 0;
  for (std::size_t at = 0; at < text.size(); at += base::decodeUTF8(text, at).length) ++count;
  return count;
}

}  // namespace

std::string shownText(std::string_view text) {
  std::string shown;
  for (std::size_t at = 0; at < text.size();) {
    const auto character = base::decodeUTF8(text, at);
    const bool isShown = character.scalar == '\n' || !isControl(character.scalar);
    base::appendUTF8(shown, isShown ? character.scalar : U'?');
    at += character.length;
  }
  return shown;
}

std::string wrappedText(std::string_view text, std::size_t columns) {
  std::string wrapped;
  std::size_t column = 0;
  while (!text.empty()) {
    const auto end = text.find_first_of(" \n");
    const auto word = text.substr(0, end);
    const std::size_t length = charactersIn(word);
    if (column != 0 && column + 1 + length > columns) {
      wrapped += '\n';
      column = 0;
    } else if (column != 0) {
      wrapped += ' ';
      ++column;
    }
    wrapped += word;
    column += length;
    if (end == text.npos) break;
    if (text[end] == '\n') {
      wrapped += '\n';
      column = 0;
    }
    text.remove_prefix(end + 1);
  }
  return wrapped;
}

}  // namespace platform::embedded
