#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace tools {

// The arguments that an option may be: with a value after it, or alone.
struct OptionNames {
  std::vector<std::string_view> withValue;
  std::vector<std::string_view> alone;
};

// Options and operands of one verb, in any order. An option given twice keeps its last value.
class Arguments {
 public:
  static base::Result<Arguments> parse(const std::vector<std::string>& arguments, std::size_t from,
                                       const OptionNames& names);

  bool has(std::string_view option) const { return options_.contains(option); }
  std::optional<std::string> value(std::string_view option) const;
  const std::vector<std::string>& operands() const { return operands_; }

 private:
  std::map<std::string, std::string, std::less<>> options_;
  std::vector<std::string> operands_;
};

}  // namespace tools
