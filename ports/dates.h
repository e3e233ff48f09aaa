#pragma once

#include <string>
#include <vector>

#include "base/date.h"

namespace ports {

// The clock, and dates as the user reads them. Any thread.
class Dates {
 public:
  virtual ~Dates() = default;

  virtual base::Date now() = 0;

  // The user's languages, most wanted first, as BCP 47 tags ("en", "pt-BR"). Never empty.
  virtual std::vector<std::string> preferredLanguages() = 0;

  // Medium date and medium time in a language's own way: "Sep 13, 2020, 2:26:40 PM". It can name
  // a file: where the language writes "/", the text has "-".
  virtual std::string mediumDateAndTime(base::Date date, const std::string& language) = 0;

  // Short date and short time in the user's locale and time zone, with the locale's words for today and
  // yesterday: "Today 14:05". The one plain blank (U+0020) is that between the date and the time.
  virtual std::string shortRelativeDateAndTime(base::Date date) = 0;
};

}  // namespace ports
