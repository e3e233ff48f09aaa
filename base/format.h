#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace base {

// What a conversion of a format is filled with: a text, a whole number, or nothing, which reads "(null)".
class FormatArgument {
 public:
  FormatArgument(std::nullopt_t) {}
  FormatArgument(std::string_view text) : value_(std::string(text)) {}
  FormatArgument(const std::string& text) : value_(text) {}
  FormatArgument(const char* text) : value_(std::string(text)) {}
  FormatArgument(const std::optional<std::string>& text) {
    if (text) value_ = *text;
  }
  FormatArgument(std::int64_t number) : value_(number) {}

  std::string text() const;

 private:
  std::variant<std::monostate, std::string, std::int64_t> value_;
};

// Fills the conversions "%@" and "%li" of a format with the arguments, in order; "%%" gives "%". A conversion
// without an argument reads "(null)"; any other text stays as it is.
std::string stringWithFormat(std::string_view format, std::initializer_list<FormatArgument> arguments);

// How a text reads that is shown as a format without arguments: "%%" is "%", and any other conversion shows
// itself, so that a percent sign from outside can never reach for an argument that is not there.
std::string stringWithFormatOnly(std::string_view format);

// The platform's description of an array of strings, as it stands in log lines:
//   (
//       create,
//       "-fs"
//   )
// An element is quoted (with \" and \\ escaped) unless it is only letters, digits and "_", "$", "/", ":",
// ".".
std::string arrayDescription(const std::vector<std::string>& elements);

}  // namespace base
