#include "platform/fake/main_queue.h"

#include <condition_variable>
#include <memory>
#include <utility>

namespace platform::fake {
namespace {

// A closure that somebody waits for. Whoever lets go of it last without having run it has dropped it.
class AwaitedClosure {
 public:
  struct Outcome {
    base::Mutex mutex;
    std::condition_variable_any known;
    std::optional<bool> ran GUARDED_BY(mutex);
  };

  AwaitedClosure(const std::function<void()>& closure, std::shared_ptr<Outcome> outcome)
      : closure_(closure), outcome_(std::move(outcome)) {}
  ~AwaitedClosure() { settle(false); }
  AwaitedClosure(const AwaitedClosure&) = delete;
  AwaitedClosure& operator=(const AwaitedClosure&) = delete;

  void run() {
    closure_();
    settle(true);
  }

 private:
  void settle(bool ran) {
    const base::MutexLock lock(outcome_->mutex);
    if (!outcome_->ran) outcome_->ran = ran;
    outcome_->known.notify_all();
  }

  const std::function<void()>& closure_;
  std::shared_ptr<Outcome> outcome_;
};

}  // namespace

void MainQueue::post(std::function<void()> closure) {
  {
    const base::MutexLock lock(mutex_);
    if (closed_) return;
    posted_.push_back(std::move(closure));
  }
  changes_.note();
}

void MainQueue::postAfter(double seconds, std::function<void()> closure) {
  const base::Date due{clock_.now().secondsSinceReferenceDate + seconds};
  {
    const base::MutexLock lock(mutex_);
    if (closed_) return;
    delayed_.emplace(due, std::move(closure));
  }
  changes_.note();
}

bool MainQueue::performAndWait(const std::function<void()>& closure) {
  if (isMainThread()) {
    {
      const base::MutexLock lock(mutex_);
      if (closed_) return false;
    }
    closure();
    return true;
  }
  const auto outcome = std::make_shared<AwaitedClosure::Outcome>();
  post([awaited = std::make_shared<AwaitedClosure>(closure, outcome)] { awaited->run(); });
  const base::MutexLock lock(outcome->mutex);
  while (!outcome->ran) outcome->known.wait(outcome->mutex);
  return *outcome->ran;
}

void MainQueue::run() {
  if (!isMainThread()) return fail_("the main queue is run from a thread that is not the main one");
  while (const auto closure = takeNext()) {
    const Hold hold(*this);
    (*closure)();
  }
}

void MainQueue::letSecondsPass(double seconds) {
  const base::Date end{clock_.now().secondsSinceReferenceDate + seconds};
  run();
  for (auto moment = nextMoment(); moment && *moment <= end; moment = nextMoment()) {
    clock_.advanceTo(*moment);
    run();
  }
  clock_.advanceTo(end);
}

void MainQueue::close() {
  std::deque<Closure> posted;
  std::multimap<base::Date, Closure> delayed;
  {
    const base::MutexLock lock(mutex_);
    closed_ = true;
    posted.swap(posted_);
    delayed.swap(delayed_);
  }
  changes_.note();
}

std::size_t MainQueue::waiting() const {
  const base::MutexLock lock(mutex_);
  return posted_.size() + delayed_.size();
}

std::optional<MainQueue::Closure> MainQueue::takeNext() {
  const base::MutexLock lock(mutex_);
  if (holds_ > 0) return std::nullopt;
  std::optional<Closure> next;
  if (!posted_.empty()) {
    next = std::move(posted_.front());
    posted_.pop_front();
  } else if (!delayed_.empty() && delayed_.begin()->first <= clock_.now()) {
    next = std::move(delayed_.begin()->second);
    delayed_.erase(delayed_.begin());
  }
  return next;
}

std::optional<base::Date> MainQueue::nextMoment() const {
  const base::MutexLock lock(mutex_);
  if (holds_ > 0 || delayed_.empty()) return std::nullopt;
  return delayed_.begin()->first;
}

MainQueue::Hold::Hold(MainQueue& queue) : queue_(queue) {
  const base::MutexLock lock(queue_.mutex_);
  ++queue_.holds_;
}

MainQueue::Hold::~Hold() {
  const base::MutexLock lock(queue_.mutex_);
  --queue_.holds_;
}

}  // namespace platform::fake
