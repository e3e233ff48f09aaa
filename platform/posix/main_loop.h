#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "platform/posix/file_descriptor.h"
#include "ports/main_queue.h"

namespace platform::posix {

// The main thread's loop on a host without a desktop toolkit: sleeps in poll() until a closure is posted, a
// delay is over, or a watched descriptor is ready. The thread that makes it is the main thread.
class MainLoop : public ports::MainQueue {
  struct Watched;

 public:
  // Whether a watch is served while a modal alert blocks the main thread.
  enum class InModals { held, served };

  // Keeps a descriptor watched. Destroyed on the main thread, from inside its own handler too.
  class Watch {
   public:
    Watch() = default;
    ~Watch() { reset(); }
    Watch(Watch&&) noexcept = default;
    Watch& operator=(Watch&& other) noexcept;
    void reset();

   private:
    friend class MainLoop;
    explicit Watch(std::shared_ptr<Watched> watched) : watched_(std::move(watched)) {}
    std::shared_ptr<Watched> watched_;
  };

  // While one lives, closures, delays and ordinary watches wait. Main thread only; they nest.
  class ModalScope {
   public:
    explicit ModalScope(MainLoop& loop) : loop_(loop) { ++loop_.modals_; }
    ~ModalScope() { --loop_.modals_; }
    ModalScope(const ModalScope&) = delete;
    ModalScope& operator=(const ModalScope&) = delete;

   private:
    MainLoop& loop_;
  };

  MainLoop();
  ~MainLoop() override;
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  bool isMainThread() const override;
  void post(std::function<void()> closure) override;
  void postAfter(double seconds, std::function<void()> closure) override;
  bool performAndWait(const std::function<void()>& closure) override;

  // Calls the handler on the main thread whenever the descriptor is readable, or at its end or in error; the
  // handler reads, or drops the watch. The descriptor stays the caller's and outlives the watch. Main thread.
  [[nodiscard]] Watch watch(int descriptor, std::function<void()> handler,
                            InModals inModals = InModals::held);

  // Calls the handler on the main thread with each of these signals that arrives, in modals too. Blocks the
  // signals in the calling thread: to be called before other threads are started, which inherit that.
  // Main thread; once.
  void handleSignals(std::initializer_list<int> signals, std::function<void(int)> handler);

  // Serves until stop(), then closes the loop and returns the exit code. Main thread; once.
  int run();

  // Serves until done() is true, which is asked after every wake-up; false when the loop is stopped first.
  // Inside a ModalScope this is the alert's own loop. Main thread.
  bool runUntil(const std::function<bool()>& done);

  // For a toolkit whose own loop does the waiting: readable once there may be something to serve.
  int wakeUpDescriptor() const { return wakeUp_.get(); }
  // The same for the signals of handleSignals(); -1 before that is called.
  int signalsDescriptor() const { return signals_.get(); }
  // Serves what is ready, one closure at most, without waiting. How long until there is more to serve, as far
  // as that is known: nothing when only the descriptors can tell. Main thread.
  std::optional<std::chrono::steady_clock::duration> serveReady();

  // Ends run(), and every runUntil() inside it, before the next closure. Any thread.
  void stop(int exitCode = 0);

  // Ends the loop for good: what was posted and did not run is dropped, who waits in performAndWait() returns
  // false. Any thread. run() does it, and so does the destructor, which waits until nobody waits here.
  void close();

 private:
  using Clock = std::chrono::steady_clock;
  struct Waiter {
    enum class State { waiting, done, dropped } state = State::waiting;
  };
  struct Posted {
    std::function<void()> closure;
    std::shared_ptr<Waiter> waiter;  // of performAndWait
  };

  void add(Posted posted) EXCLUDES(mutex_);
  void wake();
  bool stopped() const EXCLUDES(mutex_);
  std::optional<Clock::duration> untilNextDeadline() const EXCLUDES(mutex_);
  std::optional<Posted> nextPosted() EXCLUDES(mutex_);
  bool performNext() EXCLUDES(mutex_);
  void waitAndServeWatches(bool mayBlock);

  const std::thread::id mainThread_ = std::this_thread::get_id();
  FileDescriptor wakeUp_;
  FileDescriptor signals_;
  Watch wakeUpWatch_;
  Watch signalsWatch_;
  int modals_ = 0;                                 // main thread only
  std::vector<std::shared_ptr<Watched>> watched_;  // main thread only

  mutable base::Mutex mutex_;
  std::condition_variable_any waiterChanged_;
  std::deque<Posted> posted_ GUARDED_BY(mutex_);
  std::multimap<Clock::time_point, std::function<void()>> delayed_ GUARDED_BY(mutex_);
  std::size_t waiters_ GUARDED_BY(mutex_) = 0;
  bool closed_ GUARDED_BY(mutex_) = false;
  std::optional<int> exitCode_ GUARDED_BY(mutex_);
};

}  // namespace platform::posix
