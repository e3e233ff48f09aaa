#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/fake/clock.h"
#include "ports/dates.h"

namespace platform::fake {

// The world's clock, read by UTC. Without a script, texts are English and of 24 hours whatever the language:
// "Nov 15, 2026, 14:05:09"; "Today 14:05", "Yesterday 14:05", "11/13/26 14:05".
class Dates : public ports::Dates {
 public:
  explicit Dates(Clock& clock) : clock_(clock) {}

  base::Date now() override { return clock_.now(); }
  std::vector<std::string> preferredLanguages() override;
  std::string mediumDateAndTime(base::Date date, const std::string& language) override;
  std::string shortRelativeDateAndTime(base::Date date) override;

  void setPreferredLanguages(std::vector<std::string> languages);
  void mediumDatesReadAs(std::function<std::string(base::Date, const std::string& language)> text);
  void shortDatesReadAs(std::function<std::string(base::Date)> text);

 private:
  Clock& clock_;
  base::Mutex mutex_;
  std::vector<std::string> languages_ GUARDED_BY(mutex_) = {"en"};
  std::function<std::string(base::Date, const std::string&)> medium_ GUARDED_BY(mutex_);
  std::function<std::string(base::Date)> short_ GUARDED_BY(mutex_);
};

}  // namespace platform::fake
