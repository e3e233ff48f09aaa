#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"

namespace base {

// A named event and the object it is about (empty: none).
struct Notification {
  std::string name;
  std::any object;
};

// Hands notifications to the observers of their name, in the order in which they were added. Thread-safe; the
// lock is not held while an observer runs, and an observer may post, add and remove.
//
// An observer added with a delivery is handed over to it (say, to the main queue): the delivery is called
// with a closure to run, and post() returns when the delivery does.
class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  using Delivery = std::function<void(const std::function<void()>&)>;
  using Token = std::uint64_t;

  // The token may be dropped: the observer then stays for the life of the centre.
  Token addObserver(std::string_view name, Delivery delivery, Observer observer);
  void removeObserver(Token token);

  // Observers added while a notification is being delivered do not get that one, and neither do observers
  // removed before their turn.
  void post(std::string_view name, std::any object = {});

 private:
  struct Registration {
    Token token;
    std::string name;
    Delivery delivery;
    Observer observer;
  };

  using Registrations = std::vector<std::shared_ptr<const Registration>>;

  Registrations::const_iterator find(Token token) const REQUIRES(mutex_);
  bool isRegistered(Token token) const;

  mutable Mutex mutex_;
  Registrations registrations_ GUARDED_BY(mutex_);
  Token lastToken_ GUARDED_BY(mutex_) = 0;
};

}  // namespace base
