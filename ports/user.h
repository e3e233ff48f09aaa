#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ports {

// The user and what they are running. Any thread.
class UserSession {
 public:
  virtual ~UserSession() = default;

  // The user's full name, or the log-in name where no full name is known.
  virtual std::string fullUserName() = 0;

  // The bundle name of each running process, as far as it has one; empty when processes cannot be listed.
  virtual std::vector<std::optional<std::string>> runningBundleNames() = 0;
};

}  // namespace ports
