#include "cli/retention.h"

#include "cli/text.h"

namespace cli {
namespace {

constexpr std::size_t kDay = 10;   // characters of "2026-11-21"
constexpr std::size_t kMonth = 7;  // and of "2026-11"

void add(std::string& reasons, const std::string& reason) {
  reasons += (reasons.empty() ? "" : ", ") + reason;
}

// Keeps the newest of each period, for as many periods as are wanted.
void keepOfEach(std::size_t period, std::size_t wanted, const std::vector<base::Date>& dates,
                std::vector<std::string>& reasons) {
  std::string last;
  for (std::size_t at = dates.size(); at-- > 0 && wanted > 0;) {
    const auto name = localDateText(dates[at]).substr(0, period);
    if (name == last) continue;
    last = name;
    --wanted;
    add(reasons[at], "newest of " + name);
  }
}

}  // namespace

std::vector<std::string> reasonsToKeep(const std::vector<base::Date>& oldestFirst,
                                       const Retention& retention) {
  std::vector<std::string> reasons(oldestFirst.size());
  for (std::size_t at = oldestFirst.size(), kept = 0; at-- > 0 && kept < retention.last; ++kept)
    add(reasons[at], "one of the last " + std::to_string(retention.last));
  keepOfEach(kDay, retention.daily, oldestFirst, reasons);
  keepOfEach(kMonth, retention.monthly, oldestFirst, reasons);
  return reasons;
}

}  // namespace cli
