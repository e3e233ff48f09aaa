#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <functional>
#include <initializer_list>
#include <optional>

#include "platform/posix/main_loop.h"
#include "ports/main_queue.h"

namespace platform::freedesktop {

// The main queue over Qt's event loop: closures run between Qt's own events, one at a time. Made on the
// thread of the QCoreApplication, after it, and destroyed there before it.
class QtMainQueue : public ports::MainQueue {
 public:
  // While one lives, closures and delays wait although Qt's events are served: around an alert's own event
  // loop. Main thread only; they nest.
  class ModalScope {
   public:
    explicit ModalScope(QtMainQueue& queue) : queue_(queue), held_(queue.loop_) {}
    ~ModalScope() { queue_.next_.start(0); }
    ModalScope(const ModalScope&) = delete;
    ModalScope& operator=(const ModalScope&) = delete;

   private:
    QtMainQueue& queue_;
    posix::MainLoop::ModalScope held_;
  };

  QtMainQueue();

  bool isMainThread() const override { return loop_.isMainThread(); }
  void post(std::function<void()> closure) override { loop_.post(std::move(closure)); }
  void postAfter(double seconds, std::function<void()> closure) override {
    loop_.postAfter(seconds, std::move(closure));
  }
  bool performAndWait(const std::function<void()>& closure) override { return loop_.performAndWait(closure); }

  // As posix::MainLoop has it: in modals too.
  void handleSignals(std::initializer_list<int> signals, std::function<void(int)> handler);

  // To be called once Qt's loop has ended: what was posted and did not run is dropped, who waits in
  // performAndWait() returns false. Any thread; the destructor does it.
  void close() { loop_.close(); }

 private:
  void serve();

  posix::MainLoop loop_;
  QSocketNotifier wakeUp_;
  std::optional<QSocketNotifier> signals_;
  QTimer next_;
};

}  // namespace platform::freedesktop
