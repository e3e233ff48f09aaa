#include "platform/linux/inhibitor.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <utility>

namespace platform::freedesktop {

void Inhibitor::begin(const std::string& why) {
  if (!holds_.empty()) return;
  const auto bus = QDBusConnection::systemBus();
  if (!bus.isConnected()) return;
  for (const auto& [what, mode] : {std::pair("sleep", "block"), std::pair("shutdown", "delay")}) {
    auto call = QDBusMessage::createMethodCall("org.freedesktop.login1", "/org/freedesktop/login1",
                                               "org.freedesktop.login1.Manager", "Inhibit");
    call << what << "Stashwick" << QString::fromStdString(why) << mode;
    holds_.push_back(bus.asyncCall(call));
  }
}

}  // namespace platform::freedesktop
