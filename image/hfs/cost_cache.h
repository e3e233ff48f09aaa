#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>
#include <utility>

#include "base/mutex.h"

namespace image::hfs {

// Values that were made before, as many as the capacity holds; what was asked for longest ago goes first. A
// value lives on while somebody holds it. Any number of threads may call.
template <class Key, class Value>
class CostCache {
 public:
  // In the unit of the costs, bytes as a rule.
  explicit CostCache(std::uint64_t capacity) : capacity_(capacity) {}

  // Null when it is not kept.
  std::shared_ptr<const Value> find(const Key& key) EXCLUDES(mutex_) {
    const base::MutexLock lock(mutex_);
    const auto known = byKey_.find(key);
    if (known == byKey_.end()) return nullptr;
    entries_.splice(entries_.begin(), entries_, known->second);
    return known->second->value;
  }

  // The value that is kept under that key from then on: another thread's, where one was faster. What costs
  // more than the capacity is not kept.
  std::shared_ptr<const Value> keep(const Key& key, std::shared_ptr<const Value> value, std::uint64_t cost)
      EXCLUDES(mutex_) {
    if (cost > capacity_) return value;
    const base::MutexLock lock(mutex_);
    if (const auto known = byKey_.find(key); known != byKey_.end()) return known->second->value;
    while (cost > capacity_ - cost_) dropOldest();
    entries_.push_front({key, value, cost});
    byKey_[key] = entries_.begin();
    cost_ += cost;
    return value;
  }

 private:
  struct Entry {
    Key key;
    std::shared_ptr<const Value> value;
    std::uint64_t cost;
  };

  void dropOldest() REQUIRES(mutex_) {
    cost_ -= entries_.back().cost;
    byKey_.erase(entries_.back().key);
    entries_.pop_back();
  }

  const std::uint64_t capacity_;
  base::Mutex mutex_;
  // The one used last in front.
  std::list<Entry> entries_ GUARDED_BY(mutex_);
  std::unordered_map<Key, typename std::list<Entry>::iterator> byKey_ GUARDED_BY(mutex_);
  std::uint64_t cost_ GUARDED_BY(mutex_) = 0;
};

}  // namespace image::hfs
