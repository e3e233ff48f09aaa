#pragma once

#include <string>
#include <vector>

#include "base/mutex.h"
#include "ports/system_log.h"

// Keeps what was logged.
class RecordingLog : public ports::SystemLog {
 public:
  void log(const std::string& line) override {
    base::MutexLock lock(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> lines() const {
    base::MutexLock lock(mutex_);
    return lines_;
  }

 private:
  mutable base::Mutex mutex_;
  std::vector<std::string> lines_ GUARDED_BY(mutex_);
};
