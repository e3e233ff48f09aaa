#pragma once

#include <optional>
#include <string>
#include <utility>

#include "base/mutex.h"
#include "ports/desktop.h"

// A menu item that carries one more text, by which its action finds what the item stands for. The accessors
// are safe from any thread.
class ZQMenuItem : public ports::MenuItem {
 public:
  using ports::MenuItem::MenuItem;

  std::optional<std::string> description() const {
    const base::MutexLock lock(mutex_);
    return description_;
  }
  void setDescription(std::optional<std::string> description) {
    const base::MutexLock lock(mutex_);
    description_.swap(description);
  }

 private:
  mutable base::Mutex mutex_;
  std::optional<std::string> description_ GUARDED_BY(mutex_);
};
