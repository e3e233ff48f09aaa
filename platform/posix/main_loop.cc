#include "platform/posix/main_loop.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

namespace platform::posix {

struct MainLoop::Watched {
  int descriptor;
  InModals inModals;
  std::function<void()> handler;
  bool active = true;
};

MainLoop::Watch& MainLoop::Watch::operator=(Watch&& other) noexcept {
  if (this != &other) {
    reset();
    watched_ = std::move(other.watched_);
  }
  return *this;
}

void MainLoop::Watch::reset() {
  if (watched_) watched_->active = false;
  watched_.reset();
}

MainLoop::MainLoop() : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wakeUp_) {
    std::perror("[Stashwick] making the main loop");
    std::abort();
  }
  const auto forget = [this] {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto got = ::read(wakeUp_.get(), &count, sizeof count);
  };
  wakeUpWatch_ = watch(wakeUp_.get(), forget, InModals::served);
}

MainLoop::~MainLoop() {
  close();
  base::MutexLock lock(mutex_);
  while (waiters_ > 0) waiterChanged_.wait(mutex_);
}

bool MainLoop::isMainThread() const { return std::this_thread::get_id() == mainThread_; }

void MainLoop::post(std::function<void()> closure) { add({std::move(closure), nullptr}); }

void MainLoop::add(Posted posted) {
  {
    base::MutexLock lock(mutex_);
    if (closed_) return;
    posted_.push_back(std::move(posted));
  }
  wake();
}

void MainLoop::postAfter(double seconds, std::function<void()> closure) {
  const auto delay = std::chrono::duration<double>(std::clamp(seconds, 0.0, 1e9));
  {
    base::MutexLock lock(mutex_);
    if (closed_) return;
    delayed_.emplace(Clock::now() + std::chrono::ceil<Clock::duration>(delay), std::move(closure));
  }
  wake();
}

bool MainLoop::performAndWait(const std::function<void()>& closure) {
  base::MutexLock lock(mutex_);
  if (closed_) return false;
  if (isMainThread()) {
    mutex_.unlock();
    closure();
    mutex_.lock();
    return true;
  }
  const auto waiter = std::make_shared<Waiter>();
  posted_.push_back({[&closure] { closure(); }, waiter});
  ++waiters_;
  wake();
  while (waiter->state == Waiter::State::waiting) waiterChanged_.wait(mutex_);
  --waiters_;
  waiterChanged_.notify_all();
  return waiter->state == Waiter::State::done;
}

void MainLoop::wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto put = ::write(wakeUp_.get(), &one, sizeof one);
}

MainLoop::Watch MainLoop::watch(int descriptor, std::function<void()> handler, InModals inModals) {
  assert(MainLoop::isMainThread());
  watched_.push_back(std::make_shared<Watched>(Watched{descriptor, inModals, std::move(handler)}));
  return Watch(watched_.back());
}

void MainLoop::handleSignals(std::initializer_list<int> signals, std::function<void(int)> handler) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_ = FileDescriptor(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  const auto read = [this, handler = std::move(handler)] {
    signalfd_siginfo arrived{};
    while (::read(signals_.get(), &arrived, sizeof arrived) == sizeof arrived) {
      handler(static_cast<int>(arrived.ssi_signo));
    }
  };
  signalsWatch_ = watch(signals_.get(), read, InModals::served);
}

int MainLoop::run() {
  runUntil([] { return false; });
  close();
  base::MutexLock lock(mutex_);
  return exitCode_.value_or(0);
}

bool MainLoop::runUntil(const std::function<bool()>& done) {
  assert(MainLoop::isMainThread());
  while (!stopped()) {
    if (done()) return true;
    waitAndServeWatches(!performNext());
  }
  return false;
}

std::optional<MainLoop::Clock::duration> MainLoop::serveReady() {
  if (stopped()) return std::nullopt;
  waitAndServeWatches(false);
  if (performNext()) return Clock::duration::zero();
  return untilNextDeadline();
}

void MainLoop::stop(int exitCode) {
  {
    base::MutexLock lock(mutex_);
    if (!exitCode_) exitCode_ = exitCode;
  }
  wake();
}

void MainLoop::close() {
  std::deque<Posted> dropped;
  std::multimap<Clock::time_point, std::function<void()>> droppedDelayed;
  {
    base::MutexLock lock(mutex_);
    closed_ = true;
    dropped.swap(posted_);
    droppedDelayed.swap(delayed_);
    for (const auto& posted : dropped) {
      if (posted.waiter) posted.waiter->state = Waiter::State::dropped;
    }
    waiterChanged_.notify_all();
  }
  wake();
}

bool MainLoop::stopped() const {
  base::MutexLock lock(mutex_);
  return closed_ || exitCode_;
}

std::optional<MainLoop::Clock::duration> MainLoop::untilNextDeadline() const {
  base::MutexLock lock(mutex_);
  if (modals_ > 0 || delayed_.empty()) return std::nullopt;
  return std::max(Clock::duration::zero(), delayed_.begin()->first - Clock::now());
}

std::optional<MainLoop::Posted> MainLoop::nextPosted() {
  base::MutexLock lock(mutex_);
  if (modals_ > 0) return std::nullopt;
  while (!delayed_.empty() && delayed_.begin()->first <= Clock::now()) {
    posted_.push_back({std::move(delayed_.begin()->second), nullptr});
    delayed_.erase(delayed_.begin());
  }
  if (posted_.empty()) return std::nullopt;
  auto next = std::move(posted_.front());
  posted_.pop_front();
  return next;
}

bool MainLoop::performNext() {
  const auto next = nextPosted();
  if (!next) return false;
  next->closure();
  if (next->waiter) {
    base::MutexLock lock(mutex_);
    next->waiter->state = Waiter::State::done;
    waiterChanged_.notify_all();
  }
  return true;
}

void MainLoop::waitAndServeWatches(bool mayBlock) {
  std::erase_if(watched_, [](const auto& watched) { return !watched->active; });
  const auto served = watched_;
  std::vector<pollfd> polled;
  for (const auto& watched : served) {
    const bool held = modals_ > 0 && watched->inModals == InModals::held;
    polled.push_back({held ? -1 : watched->descriptor, POLLIN, 0});
  }
  const auto wait = mayBlock ? untilNextDeadline() : Clock::duration::zero();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(wait.value_or(Clock::duration::zero()));
  timespec timeout{};
  timeout.tv_sec = seconds.count();
  timeout.tv_nsec = (wait.value_or(Clock::duration::zero()) - seconds).count();
  if (::ppoll(polled.data(), polled.size(), wait ? &timeout : nullptr, nullptr) <= 0) return;
  for (std::size_t i = 0; i < polled.size(); ++i) {
    if (polled[i].revents != 0 && served[i]->active && !stopped()) served[i]->handler();
  }
}

}  // namespace platform::posix
