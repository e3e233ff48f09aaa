#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "base/date.h"

namespace cli {

// How many backups to keep: the newest ones, the newest of each of the last days that have any, and of each
// of the last months, by local time.
struct Retention {
  std::size_t last = 0;
  std::size_t daily = 0;
  std::size_t monthly = 0;
};

// For each date, oldest first, why its backup stays; an empty text: it goes.
std::vector<std::string> reasonsToKeep(const std::vector<base::Date>& oldestFirst,
                                       const Retention& retention);

}  // namespace cli
