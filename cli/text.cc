#include "cli/text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "base/unicode.h"

namespace cli {
namespace {

using base::PropertyList;

bool isControl(char32_t scalar) { return scalar < 0x20 || (scalar >= 0x7F && scalar < 0xA0); }

std::size_t columnsOf(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string dateText(const std::tm& fields, const char* format) {
  std::array<char, 64> text;
  return {text.data(), std::strftime(text.data(), text.size(), format, &fields)};
}

std::time_t wholeSeconds(base::Date date) { return static_cast<std::time_t>(std::floor(date.unix())); }

std::string formatted(const char* format, auto value) {
  std::array<char, 40> text;
  const int size = std::snprintf(text.data(), text.size(), format, value);
  return {text.data(), static_cast<std::size_t>(size)};
}

void writeText(std::string& json, std::string_view text) {
  json += '"';
  for (std::size_t at = 0; at < text.size();) {
    const auto character = base::decodeUTF8(text, at);
    at += character.length;
    if (character.scalar == '"' || character.scalar == '\\') {
      json += '\\';
      json += static_cast<char>(character.scalar);
    } else if (isControl(character.scalar)) {
      json += formatted("\\u%04x", static_cast<unsigned>(character.scalar));
    } else {
      base::appendUTF8(json, character.scalar);
    }
  }
  json += '"';
}

class JsonWriter {
 public:
  explicit JsonWriter(std::string& json) : json_(json) {}

  void write(const PropertyList& value) {
    if (const auto* flag = value.as<bool>()) json_ += *flag ? "true" : "false";
    if (const auto* integer = value.as<std::int64_t>()) json_ += std::to_string(*integer);
    if (const auto* real = value.as<double>())
      json_ += std::isfinite(*real) ? formatted("%.17g", *real) : "null";
    if (const auto* text = value.as<std::string>()) writeText(json_, *text);
    if (const auto* date = value.as<base::Date>()) writeDate(*date);
    if (const auto* data = value.as<PropertyList::Data>()) writeData(*data);
    if (const auto* uid = value.as<PropertyList::UID>()) json_ += std::to_string(uid->index);
    if (const auto* array = value.as<PropertyList::Array>()) writeArray(*array);
    if (const auto* dictionary = value.as<PropertyList::Dictionary>()) writeDictionary(*dictionary);
  }

 private:
  void writeDate(base::Date date) {
    const std::time_t seconds = wholeSeconds(date);
    std::tm fields{};
    writeText(json_, gmtime_r(&seconds, &fields) ? dateText(fields, "%Y-%m-%dT%H:%M:%SZ") : "");
  }

  void writeData(const PropertyList::Data& data) {
    json_ += '"';
    for (const auto byte : data) json_ += formatted("%02x", static_cast<unsigned>(byte));
    json_ += '"';
  }

  void writeArray(const PropertyList::Array& array) {
    json_ += '[';
    ++depth_;
    for (const auto& element : array) {
      if (&element != &array.front()) json_ += ',';
      newLine();
      write(element);
    }
    --depth_;
    if (!array.empty()) newLine();
    json_ += ']';
  }

  void writeDictionary(const PropertyList::Dictionary& dictionary) {
    json_ += '{';
    const char* between = "";
    for (const auto& [key, value] : dictionary) {
      json_ += between;
      writeText(json_, key);
      json_ += ": ";
      write(value);
      between = ", ";
    }
    json_ += '}';
  }

  void newLine() {
    json_ += '\n';
    json_.append(2 * depth_, ' ');
  }

  std::string& json_;
  std::size_t depth_ = 0;
};

}  // namespace

std::string shownText(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const auto character = base::decodeUTF8(text, at);
    at += character.length;
    base::appendUTF8(shown, isControl(character.scalar) ? U'?' : character.scalar);
  }
  return shown;
}

std::string jsonText(const PropertyList& value) {
  std::string json;
  JsonWriter(json).write(value);
  return json + "\n";
}

std::string localDateText(base::Date date) {
  const std::time_t seconds = wholeSeconds(date);
  std::tm fields{};
  return localtime_r(&seconds, &fields) ? dateText(fields, "%Y-%m-%d %H:%M:%S") : "";
}

std::string countText(std::uint64_t count, std::string_view noun) {
  return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

std::string tableText(const std::vector<std::vector<std::string>>& rows,
                      const std::vector<std::size_t>& right) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], columnsOf(row[column]));
  }
  std::string text;
  for (const auto& row : rows) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      const std::string padding(widths[column] - columnsOf(row[column]), ' ');
      const bool isRight = std::ranges::find(right, column) != right.end();
      text += isRight ? padding + row[column] : row[column];
      if (column + 1 < row.size()) text += (isRight ? "" : padding) + "  ";
    }
    text += '\n';
  }
  return text;
}

}  // namespace cli
