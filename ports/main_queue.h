#pragma once

#include <functional>

namespace ports {

// The main thread's loop, as others reach it. Any thread.
class MainQueue {
 public:
  virtual ~MainQueue() = default;

  virtual bool isMainThread() const = 0;

  // Runs the closure on the main thread, later and in order; modal alerts hold the queue up.
  virtual void post(std::function<void()> closure) = 0;

  // The same after a delay; does not fire while a modal alert runs.
  virtual void postAfter(double seconds, std::function<void()> closure) = 0;

  // Runs the closure on the main thread and returns when it has run: at once when called there. Returns
  // false, without having run it, when the loop has ended or ends before its turn comes.
  virtual bool performAndWait(const std::function<void()>& closure) = 0;
};

}  // namespace ports
