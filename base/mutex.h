#pragma once

#include <mutex>

// A mutex that clang's thread-safety analysis understands: fields say GUARDED_BY(mutex_), and touching one
// without the lock is a compile error there. Other compilers see nothing of it.
#if defined(__clang__)
#define STASHWICK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define STASHWICK_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) STASHWICK_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY STASHWICK_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) STASHWICK_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) STASHWICK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) STASHWICK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) STASHWICK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) STASHWICK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace base {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for its own scope. Also the lockable that std::condition_variable_any waits with.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace base
