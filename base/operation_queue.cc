#include "base/operation_queue.h"

#include <algorithm>
#include <utility>

namespace base {

OperationQueue::OperationQueue() : worker_([this] { work(); }) {}

OperationQueue::~OperationQueue() { close(); }

void OperationQueue::addOperation(Operation operation) {
  const auto entry = std::make_shared<Entry>(Entry{std::move(operation)});
  Registrations toTell;
  {
    const MutexLock lock(mutex_);
    if (closed_) return;
    entries_.push_back(entry);
    toTell = registrations_;
  }
  tell(toTell);
  const MutexLock lock(mutex_);
  entry->mayStart = true;
  changed_.notify_all();
}

std::size_t OperationQueue::operationCount() const {
  const MutexLock lock(mutex_);
  return entries_.size();
}

void OperationQueue::cancelAllOperations() {
  const MutexLock lock(mutex_);
  for (const auto& entry : entries_) entry->cancelled = true;
}

void OperationQueue::addObserver(const void* who, Observer observer) {
  const MutexLock lock(mutex_);
  registrations_.push_back(std::make_shared<const Registration>(Registration{who, std::move(observer)}));
}

void OperationQueue::removeObserver(const void* who) {
  std::shared_ptr<const Registration> removed;  // let go of without the lock
  const MutexLock lock(mutex_);
  const auto latest = std::find_if(registrations_.rbegin(), registrations_.rend(),
                                   [who](const auto& registration) { return registration->who == who; });
  if (latest == registrations_.rend()) return;
  removed = *latest;
  registrations_.erase(std::next(latest).base());
}

void OperationQueue::close() {
  {
    const MutexLock lock(mutex_);
    closed_ = true;
    for (const auto& entry : entries_) entry->cancelled = true;
    changed_.notify_all();
  }
  if (worker_.joinable()) worker_.join();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  mutex_.lock();
  while (!entries_.empty() || telling_) changed_.wait(mutex_);
  mutex_.unlock();
}

void OperationQueue::tell(const Registrations& registrations) {
  for (const auto& registration : registrations) registration->observer();
}

void OperationQueue::work() {
  mutex_.lock();
  for (;;) {
    while (!(closed_ && entries_.empty()) && (entries_.empty() || !entries_.front()->mayStart)) {
      changed_.wait(mutex_);
    }
    if (entries_.empty()) break;
    const auto entry = entries_.front();
    const bool runs = !entry->cancelled;
    mutex_.unlock();
    if (runs) entry->operation();
    entry->operation = nullptr;
    mutex_.lock();
    entries_.pop_front();
    telling_ = true;
    auto toTell = registrations_;
    mutex_.unlock();
    tell(toTell);
    toTell.clear();
    mutex_.lock();
    telling_ = false;
    changed_.notify_all();
  }
  mutex_.unlock();
}

}  // namespace base
