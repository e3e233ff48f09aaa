#pragma once

#include <string>
#include <string_view>

#include "ports/user.h"

namespace platform::posix {

// The full name in a password entry's comment field: up to the first comma, "&" standing for the capitalised
// log-in name. The log-in name itself where that leaves nothing.
std::string fullNameFromComment(std::string_view comment, std::string_view loginName);

// A process's bundle name is the name that the kernel keeps for it (at most 15 bytes).
class PosixUserSession : public ports::UserSession {
 public:
  explicit PosixUserSession(std::string processes = "/proc") : processes_(std::move(processes)) {}

  std::string fullUserName() override;
  std::vector<std::optional<std::string>> runningBundleNames() override;

 private:
  const std::string processes_;
};

}  // namespace platform::posix
