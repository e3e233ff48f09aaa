#include "base/format.h"

#include <algorithm>

namespace base {
namespace {

bool readsUnquoted(std::string_view element) {
  const auto plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_$/:.").find(c) != std::string_view::npos;
  };
  return !element.empty() && std::all_of(element.begin(), element.end(), plain);
}

std::string quoted(std::string_view element) {
  std::string text = "\"";
  for (const char c : element) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + '"';
}

}  // namespace

std::string FormatArgument::text() const {
  if (const auto* text = std::get_if<std::string>(&value_)) return *text;
  if (const auto* number = std::get_if<std::int64_t>(&value_)) return std::to_string(*number);
  return "(null)";
}

std::string stringWithFormat(std::string_view format, std::initializer_list<FormatArgument> arguments) {
  std::string text;
  const auto* next = arguments.begin();
  while (!format.empty()) {
    const auto percent = std::min(format.find('%'), format.size());
    text += format.substr(0, percent);
    format.remove_prefix(percent);
    if (format.starts_with("%%")) {
      text += '%';
      format.remove_prefix(2);
    } else if (format.starts_with("%@") || format.starts_with("%li")) {
      text += next == arguments.end() ? "(null)" : (next++)->text();
      format.remove_prefix(format[1] == '@' ? 2 : 3);
    } else if (!format.empty()) {
      text += '%';
      format.remove_prefix(1);
    }
  }
  return text;
}

std::string stringWithFormatOnly(std::string_view format) {
  std::string text;
  for (std::size_t i = 0; i < format.size(); ++i) {
    text += format[i];
    if (format.substr(i, 2) == "%%") ++i;
  }
  return text;
}

std::string arrayDescription(const std::vector<std::string>& elements) {
  std::string text = "(\n";
  for (std::size_t i = 0; i < elements.size(); ++i) {
    text += "    " + (readsUnquoted(elements[i]) ? elements[i] : quoted(elements[i]));
    text += i + 1 < elements.size() ? ",\n" : "\n";
  }
  return text + ")";
}

}  // namespace base
