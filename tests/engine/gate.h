#pragma once

#include <condition_variable>

#include "base/mutex.h"
#include "platform/fake/world.h"

namespace tests::engine {

// A place where a thread waits until it is let through. Whoever waits for somebody to arrive does it with
// World::runUntil() and held().
class Gate {
 public:
  explicit Gate(platform::fake::World& world) : world_(world) {}

  void pass() {
    {
      const base::MutexLock lock(mutex_);
      held_ = true;
    }
    world_.wake();
    const base::MutexLock lock(mutex_);
    while (!open_) changed_.wait(mutex_);
    held_ = false;
  }
  void open() {
    const base::MutexLock lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool held() const {
    const base::MutexLock lock(mutex_);
    return held_;
  }

 private:
  platform::fake::World& world_;
  mutable base::Mutex mutex_;
  std::condition_variable_any changed_;
  bool held_ GUARDED_BY(mutex_) = false;
  bool open_ GUARDED_BY(mutex_) = false;
};

}  // namespace tests::engine
