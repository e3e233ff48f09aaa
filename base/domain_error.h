#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/format.h"

namespace base {

// A failure as a value: the domain that numbers it, its code there, and the reason in words where one is
// known.
struct DomainError {
  std::string domain;
  std::int64_t code = 0;
  std::optional<std::string> localizedFailureReason;

  std::string description() const {
    std::string head = stringWithFormat("Error Domain=%@ Code=%li", {domain, code});
    if (!localizedFailureReason) return head;
    return head + stringWithFormat(" UserInfo={NSLocalizedFailureReason=%@}", {*localizedFailureReason});
  }

  friend bool operator==(const DomainError&, const DomainError&) = default;
};

}  // namespace base
