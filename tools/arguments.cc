#include "tools/arguments.h"

#include <algorithm>

namespace tools {

base::Result<Arguments> Arguments::parse(const std::vector<std::string>& arguments, std::size_t from,
                                         const OptionNames& names) {
  Arguments parsed;
  for (std::size_t i = from; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument.empty() || argument.front() != '-') {
      parsed.operands_.push_back(argument);
    } else if (std::ranges::count(names.alone, argument) != 0) {
      parsed.options_[argument] = "";
    } else if (std::ranges::count(names.withValue, argument) != 0) {
      if (++i == arguments.size()) return base::Error{"the option " + argument + " needs a value"};
      parsed.options_[argument] = arguments[i];
    } else {
      return base::Error{"unknown option " + argument};
    }
  }
  return parsed;
}

std::optional<std::string> Arguments::value(std::string_view option) const {
  const auto found = options_.find(option);
  if (found == options_.end()) return std::nullopt;
  return found->second;
}

}  // namespace tools
