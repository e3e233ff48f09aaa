#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/fake/changes.h"
#include "ports/system_log.h"

namespace platform::fake {

// The lines that were logged, in order.
class SystemLog : public ports::SystemLog {
 public:
  explicit SystemLog(Changes& changes) : changes_(changes) {}

  void log(const std::string& line) override {
    {
      const base::MutexLock lock(mutex_);
      lines_.push_back(line);
    }
    changes_.note();
  }

  std::vector<std::string> lines() const {
    const base::MutexLock lock(mutex_);
    return lines_;
  }
  // Whether this very line was logged.
  bool has(const std::string& line) const {
    const base::MutexLock lock(mutex_);
    return std::ranges::find(lines_, line) != lines_.end();
  }

 private:
  Changes& changes_;
  mutable base::Mutex mutex_;
  std::vector<std::string> lines_ GUARDED_BY(mutex_);
};

}  // namespace platform::fake
