#include "platform/fake/dates.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <utility>

namespace platform::fake {
namespace {

struct UTC {
  std::chrono::sys_days day;
  std::chrono::year_month_day date;
  std::chrono::hh_mm_ss<std::chrono::seconds> time;
};

UTC utc(base::Date moment) {
  const std::chrono::sys_seconds seconds{std::chrono::seconds(std::llround(std::floor(moment.unix())))};
  const auto day = std::chrono::floor<std::chrono::days>(seconds);
  return {day, day, std::chrono::hh_mm_ss(seconds - day)};
}

template <class... Numbers>
std::string formatted(const char* format, Numbers... numbers) {
  char text[64];
  std::snprintf(text, sizeof text, format, static_cast<int>(numbers)...);
  return text;
}

}  // namespace

std::vector<std::string> Dates::preferredLanguages() {
  const base::MutexLock lock(mutex_);
  return languages_;
}

std::string Dates::mediumDateAndTime(base::Date date, const std::string& language) {
  std::function<std::string(base::Date, const std::string&)> text;
  {
    const base::MutexLock lock(mutex_);
    text = medium_;
  }
  if (text) return text(date, language);
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto at = utc(date);
  return kMonths[static_cast<unsigned>(at.date.month()) - 1] +
         formatted(" %d, %d, %02d:%02d:%02d", static_cast<unsigned>(at.date.day()),
                   static_cast<int>(at.date.year()), at.time.hours().count(), at.time.minutes().count(),
                   at.time.seconds().count());
}

std::string Dates::shortRelativeDateAndTime(base::Date date) {
  std::function<std::string(base::Date)> text;
  {
    const base::MutexLock lock(mutex_);
    text = short_;
  }
  if (text) return text(date);
  const auto at = utc(date);
  const auto daysAgo = (utc(now()).day - at.day).count();
  const auto day = daysAgo == 0   ? std::string("Today")
                   : daysAgo == 1 ? std::string("Yesterday")
                                  : formatted("%d/%d/%02d", static_cast<unsigned>(at.date.month()),
                                              static_cast<unsigned>(at.date.day()),
                                              static_cast<int>(at.date.year()) % 100);
  return day + formatted(" %02d:%02d", at.time.hours().count(), at.time.minutes().count());
}

void Dates::setPreferredLanguages(std::vector<std::string> languages) {
  const base::MutexLock lock(mutex_);
  languages_ = std::move(languages);
}

void Dates::mediumDatesReadAs(std::function<std::string(base::Date, const std::string&)> text) {
  const base::MutexLock lock(mutex_);
  medium_ = std::move(text);
}

void Dates::shortDatesReadAs(std::function<std::string(base::Date)> text) {
  const base::MutexLock lock(mutex_);
  short_ = std::move(text);
}

}  // namespace platform::fake
