#include "base/file_url.h"

namespace base {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

// Characters that a file URL's path shows as they are.
bool staysPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~/!$&'()*+,=:@").find(c) != std::string_view::npos;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0 || (high == 0 && low == 0)) return std::nullopt;
    decoded += static_cast<char>(high << 4 | low);
    i += 2;
  }
  return decoded;
}

}  // namespace

std::string FileURL::absoluteString() const {
  std::string text = "file://";
  text.reserve(text.size() + path.size() + 16);
  for (const char c : path) {
    if (staysPlain(c)) {
      text += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    text += {'%', kHexDigits[byte >> 4], kHexDigits[byte & 15]};
  }
  if (isDirectory && !text.ends_with('/')) text += '/';
  return text;
}

std::optional<FileURL> FileURL::fromAbsoluteString(std::string_view text) {
  for (const std::string_view prefix : {"file://localhost/", "file:///"}) {
    if (!text.starts_with(prefix)) continue;
    text.remove_prefix(prefix.size() - 1);
    auto path = percentDecoded(text);
    if (!path) return std::nullopt;
    const bool isDirectory = path->ends_with('/');
    while (path->size() > 1 && path->ends_with('/')) path->pop_back();
    return FileURL{std::move(*path), isDirectory};
  }
  return std::nullopt;
}

std::string_view FileURL::lastPathComponent() const {
  const std::string_view whole = path;
  const auto slash = whole.rfind('/');
  return slash == std::string_view::npos || whole.size() == 1 ? whole : whole.substr(slash + 1);
}

}  // namespace base
