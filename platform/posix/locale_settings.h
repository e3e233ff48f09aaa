#pragma once

#include <string>
#include <vector>

namespace platform::posix {

// The environment variables that say how a user wants texts; an empty one counts as not set.
struct LocaleVariables {
  std::string language = {};  // LANGUAGE, a list: "de:fr"
  std::string lcAll = {};
  std::string lcMessages = {};
  std::string lcTime = {};
  std::string lang = {};

  static LocaleVariables fromEnvironment();
};

struct LocaleSettings {
  // BCP 47 tags, most wanted first, never empty: {"en"} where the locale is "C", "POSIX" or not set.
  std::vector<std::string> languages;
  // How dates are written: the first language in the region that LC_TIME names, as a BCP 47 tag.
  std::string dateLocale;

  static LocaleSettings from(const LocaleVariables& variables);
};

}  // namespace platform::posix
