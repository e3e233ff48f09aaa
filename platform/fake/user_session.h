#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "ports/user.h"

namespace platform::fake {

// Pat Example, who runs what a test says; at first nothing.
class UserSession : public ports::UserSession {
 public:
  std::string fullUserName() override {
    const base::MutexLock lock(mutex_);
    return fullName_;
  }
  std::vector<std::optional<std::string>> runningBundleNames() override {
    const base::MutexLock lock(mutex_);
    return running_;
  }

  void setFullUserName(std::string name) {
    const base::MutexLock lock(mutex_);
    fullName_ = std::move(name);
  }
  void setRunningBundleNames(std::vector<std::optional<std::string>> names) {
    const base::MutexLock lock(mutex_);
    running_ = std::move(names);
  }

 private:
  base::Mutex mutex_;
  std::string fullName_ GUARDED_BY(mutex_) = "Pat Example";
  std::vector<std::optional<std::string>> running_ GUARDED_BY(mutex_);
};

}  // namespace platform::fake
