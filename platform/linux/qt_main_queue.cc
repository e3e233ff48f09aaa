#include "platform/linux/qt_main_queue.h"

#include <chrono>
#include <utility>

namespace platform::freedesktop {

QtMainQueue::QtMainQueue() : wakeUp_(loop_.wakeUpDescriptor(), QSocketNotifier::Read) {
  next_.setSingleShot(true);
  next_.setTimerType(Qt::PreciseTimer);
  QObject::connect(&wakeUp_, &QSocketNotifier::activated, &next_, [this] { serve(); });
  QObject::connect(&next_, &QTimer::timeout, &next_, [this] { serve(); });
}

void QtMainQueue::handleSignals(std::initializer_list<int> signals, std::function<void(int)> handler) {
  loop_.handleSignals(signals, std::move(handler));
  signals_.emplace(loop_.signalsDescriptor(), QSocketNotifier::Read);
  QObject::connect(&*signals_, &QSocketNotifier::activated, &next_, [this] { serve(); });
}

void QtMainQueue::serve() {
  // Before the closure, which may run a loop of Qt's for a while: that one serves the others.
  next_.start(0);
  const auto wait = loop_.serveReady();
  if (!wait) return next_.stop();
  next_.start(std::chrono::ceil<std::chrono::milliseconds>(*wait));
}

}  // namespace platform::freedesktop
