#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "base/mutex.h"

namespace base {

// Runs operations one at a time, in the order in which they were added, on a worker thread of its own, and
// tells observers of every change of its collection of operations.
//
// A change is told after it happened, on the thread that made it: an addition on the adding thread, before
// the operation may start; the removal of a finished (or cancelled) operation on the worker, before the next
// one starts. So an observer that cancels the queue stops everything that has not started yet.
//
// All members may be called from any thread, from operations and observers too, but for those that wait for
// the worker and must not be called on it: close(), waitUntilAllOperationsAreFinished(), and the destructor,
// which closes. What an operation holds is let go of on the worker, before its removal is told. No lock is
// held while an operation or an observer runs or is let go of.
class OperationQueue {
 public:
  using Operation = std::function<void()>;
  using Observer = std::function<void()>;

  OperationQueue();
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  void addOperation(Operation operation);

  // Operations that were added and not yet removed: waiting, running, or cancelled and not yet swept out.
  std::size_t operationCount() const;

  // Operations that have not started will not run. They leave the collection one by one, as if they had run.
  void cancelAllOperations();

  // Registrations are counted: who registers twice is told twice of each change, and each removal takes back
  // one registration. Removing what is not registered is harmless. Every registration that stood when a
  // change happened is told of it.
  void addObserver(const void* who, Observer observer);
  void removeObserver(const void* who);

  // Cancels everything, takes no further operations, and returns when no operation runs and none is left.
  void close();

  // Returns when the collection is empty and its last change was told.
  void waitUntilAllOperationsAreFinished();

 private:
  struct Entry {
    Operation operation;
    bool mayStart = false;
    bool cancelled = false;
  };
  struct Registration {
    const void* who;
    Observer observer;
  };

  using Registrations = std::vector<std::shared_ptr<const Registration>>;

  void work();
  static void tell(const Registrations& registrations);

  mutable Mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<std::shared_ptr<Entry>> entries_ GUARDED_BY(mutex_);
  Registrations registrations_ GUARDED_BY(mutex_);
  bool telling_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;
  std::thread worker_;
};

}  // namespace base
