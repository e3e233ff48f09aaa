#pragma once

#include "base/date.h"
#include "base/mutex.h"

namespace platform::fake {

// The world's time, which passes only when a test says so. Starts on 2026-11-15 at 14:05:09 UTC. Any thread.
class Clock {
 public:
  static constexpr base::Date kStart = base::Date::fromUnix(1794751509);

  base::Date now() const {
    const base::MutexLock lock(mutex_);
    return now_;
  }
  // Never goes back: an earlier moment leaves the clock as it is.
  void advanceTo(base::Date moment) {
    const base::MutexLock lock(mutex_);
    if (moment > now_) now_ = moment;
  }

 private:
  mutable base::Mutex mutex_;
  base::Date now_ GUARDED_BY(mutex_) = kStart;
};

}  // namespace platform::fake
