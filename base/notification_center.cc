#include "base/notification_center.h"

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
  const MutexLock lock(mutex_);
  std::erase_if(registrations_, [token](const auto& registration) { return registration->token == token; });
}

void NotificationCenter::post(std::string_view name, std::any object) {
  const Notification notification{std::string(name), std::move(object)};
  std::vector<std::shared_ptr<const Registration>> interested;
  {
    const MutexLock lock(mutex_);
    for (const auto& registration : registrations_) {
      if (registration->name == name) interested.push_back(registration);
    }
  }
  for (const auto& registration : interested) {
    const auto deliver = [&] { registration->observer(notification); };
    if (registration->delivery) {
      registration->delivery(deliver);
    } else {
      deliver();
    }
  }
}

}  // namespace base
