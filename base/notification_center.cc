#include "base/notification_center.h"

#include <algorithm>
#include <utility>

namespace base {

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name, Delivery delivery,
                                                          Observer observer) {
  const MutexLock lock(mutex_);
  registrations_.push_back(std::make_shared<const Registration>(
      Registration{++lastToken_, std::string(name), std::move(delivery), std::move(observer)}));
  return lastToken_;
}

void NotificationCenter::removeObserver(Token token) {
  std::shared_ptr<const Registration> removed;  // let go of without the lock
  const MutexLock lock(mutex_);
  const auto found = find(token);
  if (found == registrations_.end()) return;
  removed = *found;
  registrations_.erase(found);
}

NotificationCenter::Registrations::const_iterator NotificationCenter::find(Token token) const {
  return std::ranges::find_if(registrations_, [token](const auto& each) { return each->token == token; });
}

bool NotificationCenter::isRegistered(Token token) const {
  const MutexLock lock(mutex_);
  return find(token) != registrations_.end();
}

void NotificationCenter::post(std::string_view name, std::any object) {
  const Notification notification{std::string(name), std::move(object)};
  Registrations interested;
  {
    const MutexLock lock(mutex_);
    for (const auto& registration : registrations_) {
      if (registration->name == name) interested.push_back(registration);
    }
  }
  for (const auto& registration : interested) {
    const auto deliver = [&] {
      if (isRegistered(registration->token)) registration->observer(notification);
    };
    if (registration->delivery) {
      registration->delivery(deliver);
    } else {
      deliver();
    }
  }
}

}  // namespace base
