#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <thread>

#include "base/mutex.h"
#include "platform/fake/changes.h"
#include "platform/fake/clock.h"
#include "platform/fake/failure.h"
#include "ports/main_queue.h"

namespace platform::fake {

// The main thread is the one that made the queue. Nothing runs but when a test lets it, and nothing runs
// while a closure of the queue runs or an alert is open.
class MainQueue : public ports::MainQueue {
 public:
  MainQueue(Clock& clock, Changes& changes, Failure& fail) : clock_(clock), changes_(changes), fail_(fail) {}
  ~MainQueue() override { close(); }

  bool isMainThread() const override { return std::this_thread::get_id() == mainThread_; }
  void post(std::function<void()> closure) override;
  void postAfter(double seconds, std::function<void()> closure) override;
  bool performAndWait(const std::function<void()>& closure) override;

  // Runs what is posted and what is due, until nothing is left. Main thread.
  void run();
  // Advances the clock, and runs each delayed call at its time. Main thread.
  void letSecondsPass(double seconds);
  // Ends the loop for good: what has not run never will, and whoever waits for it is told so.
  void close();
  // How many closures and delayed calls wait.
  std::size_t waiting() const;

  // Holds the queue up for as long as it lives.
  class Hold {
   public:
    explicit Hold(MainQueue& queue);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    MainQueue& queue_;
  };

 private:
  using Closure = std::function<void()>;

  std::optional<Closure> takeNext();
  std::optional<base::Date> nextMoment() const;

  const std::thread::id mainThread_ = std::this_thread::get_id();
  Clock& clock_;
  Changes& changes_;
  Failure& fail_;
  mutable base::Mutex mutex_;
  std::deque<Closure> posted_ GUARDED_BY(mutex_);
  std::multimap<base::Date, Closure> delayed_ GUARDED_BY(mutex_);  // of one moment: in order of the calls
  int holds_ GUARDED_BY(mutex_) = 0;
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform::fake
