#pragma once

#include <cstdint>
#include <string>

#include "cli/session.h"

namespace cli {

// How much there is: items of every kind, and the bytes of the files among them.
struct Amount {
  std::uint64_t items = 0;
  std::uint64_t bytes = 0;

  // "12 items, 3.40 MB"
  std::string text() const;
};

// What an attached volume holds now. Walks all of it.
Expected<Amount> contentsOf(Session& session, const std::string& volume);

}  // namespace cli
