#include "platform/linux/agent_bus.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>

namespace platform::freedesktop {

AgentBus::AgentBus(AgentAnswers answers) : answers_(std::move(answers)) {
  qDBusRegisterMetaType<QList<QVariantMap>>();
  new AgentAdaptor(*this);
}

AgentBus::~AgentBus() {
  if (!taken_) return;
  auto bus = QDBusConnection::sessionBus();
  bus.unregisterService(kName);
  bus.unregisterObject(kPath);
}

AgentBus::Place AgentBus::take() {
  auto bus = QDBusConnection::sessionBus();
  if (!bus.isConnected() || !bus.registerObject(kPath, this)) return Place::noBus;
  taken_ = bus.registerService(kName);
  if (taken_) return Place::free;
  bus.unregisterObject(kPath);
  bus.call(QDBusMessage::createMethodCall(kName, kPath, kName, "Activate"), QDBus::NoBlock);
  return Place::taken;
}

// Signals of objects are for their own thread.
void AgentBus::tellStateChanged() {
  QDBusConnection::sessionBus().send(QDBusMessage::createSignal(kPath, kName, "StateChanged"));
}

QList<QVariantMap> AgentAdaptor::Volumes() const {
  QList<QVariantMap> list;
  for (const auto& volume : bus_.answers().volumes())
    list.append(QVariantMap{{"Name", QString::fromStdString(volume.name)},
                            {"Identifier", QString::fromStdString(volume.identifier)},
                            {"Bytes", QVariant::fromValue<qulonglong>(volume.bytes)},
                            {"Mounted", !volume.place.empty()},
                            {"Place", QString::fromStdString(volume.place)}});
  return list;
}

QList<QVariantMap> AgentAdaptor::Backups(const QString& volume) const {
  QList<QVariantMap> list;
  for (const auto& backup : bus_.answers().backups(volume.toStdString()))
    list.append(QVariantMap{{"Path", QString::fromStdString(backup.path)},
                            {"Date", backup.date},
                            {"Bytes", QVariant::fromValue<qulonglong>(backup.bytes)},
                            {"Encrypted", backup.isEncrypted}});
  return list;
}

QString AgentAdaptor::BackUp(const QString& volume) {
  return QString::fromStdString(bus_.answers().backUp(volume.toStdString()).value_or(""));
}

void AgentAdaptor::Activate() { bus_.answers().activate(); }

void AgentAdaptor::Quit() { bus_.answers().quit(); }

}  // namespace platform::freedesktop
