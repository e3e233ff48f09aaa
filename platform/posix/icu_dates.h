#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/posix/locale_settings.h"
#include "ports/dates.h"

namespace platform::posix {

// Dates as the Unicode locale data (CLDR) writes them.
class IcuDates : public ports::Dates {
 public:
  // An empty time zone ("Europe/Berlin") is the host's own.
  explicit IcuDates(LocaleSettings settings = LocaleSettings::from(LocaleVariables::fromEnvironment()),
                    std::string timeZone = {})
      : settings_(std::move(settings)), timeZone_(std::move(timeZone)) {}

  base::Date now() override;
  std::vector<std::string> preferredLanguages() override { return settings_.languages; }
  std::string mediumDateAndTime(base::Date date, const std::string& language) override;
  std::string shortRelativeDateAndTime(base::Date date) override;

 private:
  const LocaleSettings settings_;
  const std::string timeZone_;
};

}  // namespace platform::posix
