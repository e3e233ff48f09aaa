#include "platform/linux/inhibitor.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace platform::freedesktop {

void Inhibitor::begin(const std::string& why) {
  if (holds_) return;
  holds_ = std::make_shared<Holds>();
  const auto bus = QDBusConnection::systemBus();
  if (!bus.isConnected()) return;
  for (const auto& [what, mode] : {std::pair("sleep", "block"), std::pair("shutdown", "delay")}) {
    auto call = QDBusMessage::createMethodCall("org.freedesktop.login1", "/org/freedesktop/login1",
                                               "org.freedesktop.login1.Manager", "Inhibit");
    call << what << "Stashwick" << QString::fromStdString(why) << mode;
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [watcher, held = std::weak_ptr(holds_)] {
                       const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *watcher;
                       const auto holds = held.lock();
                       if (holds && reply.isValid()) holds->descriptors.push_back(reply.value());
                       watcher->deleteLater();
                     });
  }
}

void Inhibitor::end() { holds_.reset(); }

}  // namespace platform::freedesktop
