#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>

#include "base/mutex.h"

namespace platform::fake {

// How long a test waits, in real time, for what other threads do before it is called a failure.
inline constexpr std::chrono::seconds kPatience{30};

// Counts everything in the world that a test may wait for: what is posted, logged, run, claimed, shown. Any
// thread.
class Changes {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  void note() {
    const base::MutexLock lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  std::uint64_t count() const {
    const base::MutexLock lock(mutex_);
    return count_;
  }
  // Returns once the count is another than `seen`; false when the deadline passed before.
  bool waitForMoreThan(std::uint64_t seen, Deadline deadline) const {
    const base::MutexLock lock(mutex_);
    while (count_ == seen) {
      if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) return count_ != seen;
    }
    return true;
  }

 private:
  mutable base::Mutex mutex_;
  mutable std::condition_variable_any changed_;
  std::uint64_t count_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform::fake
