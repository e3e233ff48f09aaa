#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <QVariantList>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/bus_greeting.h"
#include "platform/linux/udisks_objects.h"
#include "ports/disk_arbitration.h"
#include "ports/system_log.h"

namespace platform::freedesktop {

// UDisks2 as seen over a message bus: keeps its objects up to date, and calls it. The daemon may come and go
// (its objects go with it), or never come. Nothing here waits: a bus or a daemon that is mute is one that has
// not come yet. Main thread only.
class UDisksBus : public QObject {
  Q_OBJECT

 public:
  // Without a dissenter the method has done what it is for.
  struct Reply {
    std::optional<ports::Dissenter> dissenter;
  };
  using Done = std::function<void(const Reply&)>;

  struct Place {
    std::string address;                      // of the bus
    std::chrono::milliseconds answersWithin;  // what the daemon knows at once
  };

  // Calls changed after each change of objects(), never from inside a call of this class. The log outlives
  // this.
  UDisksBus(Place place, std::function<void()> changed, ports::SystemLog& log);
  ~UDisksBus() override;

  // Sets out to reach the daemon, starting it if it can be started, unless that has been done. False when
  // there is no bus.
  bool reach();

  const UDisksObjects& objects() const { return objects_; }
  // A reply has told that nothing is mounted there any more; the signal that tells it as well may be late.
  void noteUnmounted(const std::string& block);
  // Whether the objects that were there before us have been told.
  bool hasListed() const { return state_ == State::listed; }

  // Calls a method of an object, and done when it has replied, or has not done so in time. The interface goes
  // without "org.freedesktop.UDisks2.". Done is never called from inside, nor once this is gone.
  void call(const std::string& path, const char* interface, const char* method, const QVariantList& arguments,
            std::chrono::milliseconds deadline, Done done);

 private Q_SLOTS:
  void disconnected(const QDBusMessage& message);
  void nameOwnerChanged(const QDBusMessage& message);
  void interfacesAdded(const QDBusMessage& message);
  void interfacesRemoved(const QDBusMessage& message);
  void propertiesChanged(const QDBusMessage& message);

 private:
  using Replied = std::function<void(const QDBusMessage&)>;
  enum class State { unreached, greeting, connected, listing, listed };

  void greeted();
  void connectToBus();
  bool subscribe();
  void unsubscribe();
  void startDaemon();
  void askBus(const char* method, const QVariantList& arguments, const Replied& replied);
  void setOwner(const QString& owner);
  void list();
  void takeList(const QDBusMessage& reply);
  void lose();
  bool isOurs(const QDBusMessage& signal, const char* signature) const;
  void send(const QDBusMessage& message, std::chrono::milliseconds deadline, const Replied& replied);

  const Place place_;
  const std::function<void()> changed_;
  ports::SystemLog& log_;
  State state_ = State::unreached;
  std::optional<BusGreeting> greeting_;
  std::unique_ptr<QSocketNotifier> greetingAnswered_;
  std::optional<QDBusConnection> connection_;
  QString owner_;  // the daemon's unique name; empty: it is not there
  UDisksObjects objects_;
};

}  // namespace platform::freedesktop
