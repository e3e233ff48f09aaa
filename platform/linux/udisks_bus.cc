#include "platform/linux/udisks_bus.h"

#include <QByteArrayList>
#include <QDBusArgument>
#include <QDBusError>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QMap>
#include <QStringList>
#include <QVariantMap>
#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "platform/linux/udisks_status.h"

namespace platform::freedesktop {
namespace {

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr const char* kLocal = "org.freedesktop.DBus.Local";
constexpr const char* kLocalPath = "/org/freedesktop/DBus/Local";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kName = "org.freedesktop.UDisks2";
constexpr const char* kRoot = "/org/freedesktop/UDisks2";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr QLatin1String kPrefix("org.freedesktop.UDisks2.");

// Interfaces whose properties change in a way that matters here.
constexpr std::array kWatchedInterfaces = {"Block", "Drive",     "Filesystem",
                                           "Loop",  "Partition", "PartitionTable"};

using InterfacesArgument = QMap<QString, QVariantMap>;
using ObjectsArgument = QMap<QDBusObjectPath, InterfacesArgument>;

std::string textOfBytes(const QByteArray& bytes) { return bytes.left(bytes.indexOf('\0')).toStdString(); }

std::optional<base::PropertyList> plainList(const QDBusArgument& argument) {
  if (argument.currentSignature() != "aay") return std::nullopt;
  base::PropertyList::Array list;
  for (const auto& bytes : qdbus_cast<QByteArrayList>(argument)) list.emplace_back(textOfBytes(bytes));
  return list;
}

std::optional<base::PropertyList> plainNumber(qulonglong number) {
  if (number > static_cast<qulonglong>(std::numeric_limits<std::int64_t>::max())) return std::nullopt;
  return base::PropertyList(static_cast<std::int64_t>(number));
}

std::optional<base::PropertyList> plainValue(const QVariant& value) {
  switch (value.typeId()) {
    case QMetaType::Bool:
      return value.toBool();
    case QMetaType::QString:
      return value.toString().toStdString();
    case QMetaType::QByteArray:
      return textOfBytes(value.toByteArray());
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
      return plainNumber(value.toULongLong());
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::LongLong:
      return static_cast<std::int64_t>(value.toLongLong());
    default:
      break;
  }
  if (value.metaType() == QMetaType::fromType<QDBusObjectPath>()) {
    return value.value<QDBusObjectPath>().path().toStdString();
  }
  if (value.metaType() == QMetaType::fromType<QDBusArgument>())
    return plainList(value.value<QDBusArgument>());
  return std::nullopt;
}

UDisksProperties plainProperties(const QVariantMap& properties) {
  UDisksProperties plain;
  for (auto property = properties.begin(); property != properties.end(); ++property) {
    if (auto value = plainValue(property.value()))
      plain.emplace(property.key().toStdString(), std::move(*value));
  }
  return plain;
}

// The interfaces of UDisks2's among them.
UDisksInterfaces plainInterfaces(const InterfacesArgument& interfaces) {
  UDisksInterfaces plain;
  for (auto interface = interfaces.begin(); interface != interfaces.end(); ++interface) {
    if (!interface.key().startsWith(kPrefix)) continue;
    plain.emplace(interface.key().mid(kPrefix.size()).toStdString(), plainProperties(interface.value()));
  }
  return plain;
}

UDisksObjects::ByPath plainObjects(const ObjectsArgument& objects) {
  UDisksObjects::ByPath plain;
  for (auto object = objects.begin(); object != objects.end(); ++object) {
    plain.emplace(object.key().path().toStdString(), plainInterfaces(object.value()));
  }
  return plain;
}

std::vector<std::string> texts(const QStringList& list) {
  std::vector<std::string> texts;
  for (const auto& text : list) texts.push_back(text.toStdString());
  return texts;
}

class Call : public QDBusPendingCallWatcher {
 public:
  Call(const QDBusPendingCall& call, QObject* parent, std::function<void(const QDBusMessage&)> whenReplied)
      : QDBusPendingCallWatcher(call, parent), replied(std::move(whenReplied)) {}
  const std::function<void(const QDBusMessage&)> replied;
};

struct SignalMatch {
  QString sender;
  QString path;
  QString interface;
  QString name;
  QStringList arguments;
  const char* slot;
};

// Signals are taken from every sender and sifted later: to name the sender would make QtDBus wait for the
// bus.
std::vector<SignalMatch> signalMatches() {
  std::vector<SignalMatch> matches = {
      {{}, kLocalPath, kLocal, "Disconnected", {}, SLOT(disconnected(QDBusMessage))},
      {kBusName, kBusPath, kBusName, "NameOwnerChanged", {kName}, SLOT(nameOwnerChanged(QDBusMessage))},
      {{}, kRoot, kObjectManager, "InterfacesAdded", {}, SLOT(interfacesAdded(QDBusMessage))},
      {{}, kRoot, kObjectManager, "InterfacesRemoved", {}, SLOT(interfacesRemoved(QDBusMessage))}};
  for (const auto* interface : kWatchedInterfaces) {
    matches.push_back({{},
                       {},
                       kProperties,
                       "PropertiesChanged",
                       {QString(kPrefix) + interface},
                       SLOT(propertiesChanged(QDBusMessage))});
  }
  return matches;
}

QString newConnectionName() {
  static int made = 0;
  return QString("udisks-%1").arg(++made);
}

}  // namespace

UDisksBus::UDisksBus(Place place, std::function<void()> changed, ports::SystemLog& log)
    : place_(std::move(place)), changed_(std::move(changed)), log_(log) {}

UDisksBus::~UDisksBus() { lose(); }

bool UDisksBus::reach() {
  if (state_ == State::connected) owner_.isEmpty() ? startDaemon() : list();
  if (state_ != State::unreached) return true;
  greeting_ = BusGreeting::begin(place_.address);
  if (!greeting_) return false;
  state_ = State::greeting;
  greetingAnswered_ = std::make_unique<QSocketNotifier>(greeting_->descriptor(), QSocketNotifier::Read);
  connect(greetingAnswered_.get(), &QSocketNotifier::activated, this, [this] { greeted(); });
  return true;
}

void UDisksBus::greeted() {
  const auto answer = greeting_->answer();
  if (answer == BusGreeting::Answer::none) return;
  greetingAnswered_->setEnabled(false);
  greetingAnswered_.release()->deleteLater();  // this is its signal
  greeting_.reset();
  if (answer == BusGreeting::Answer::served) return connectToBus();
  state_ = State::unreached;
}

void UDisksBus::connectToBus() {
  connection_ = QDBusConnection::connectToBus(QString::fromStdString(place_.address), newConnectionName());
  if (!connection_->isConnected() || !subscribe()) {
    log_.log("[Stashwick] reaching the system bus: " + connection_->lastError().message().toStdString());
    return lose();
  }
  state_ = State::connected;
  startDaemon();
}

bool UDisksBus::subscribe() {
  return std::ranges::all_of(signalMatches(), [this](const SignalMatch& match) {
    return connection_->connect(match.sender, match.path, match.interface, match.name, match.arguments, {},
                                this, match.slot);
  });
}

void UDisksBus::unsubscribe() {
  for (const auto& match : signalMatches())
    connection_->disconnect(match.sender, match.path, match.interface, match.name, match.arguments, {}, this,
                            match.slot);
}

void UDisksBus::startDaemon() {
  askBus("StartServiceByName", {QString(kName), 0U}, [this](const QDBusMessage&) {
    askBus("GetNameOwner", {QString(kName)}, [this](const QDBusMessage& reply) {
      if (reply.type() == QDBusMessage::ReplyMessage) setOwner(reply.arguments().value(0).toString());
    });
  });
}

void UDisksBus::askBus(const char* method, const QVariantList& arguments, const Replied& replied) {
  auto message = QDBusMessage::createMethodCall(kBusName, kBusPath, kBusName, method);
  message.setArguments(arguments);
  send(message, place_.answersWithin,
       [this, asked = connection_->name(), replied](const QDBusMessage& reply) {
         if (connection_ && connection_->name() == asked) replied(reply);
       });
}

void UDisksBus::setOwner(const QString& owner) {
  if (owner == owner_) return;
  owner_ = owner;
  state_ = State::connected;
  objects_.replaceAll({});
  if (!owner_.isEmpty()) list();
  changed_();
}

void UDisksBus::list() {
  state_ = State::listing;
  send(QDBusMessage::createMethodCall(owner_, kRoot, kObjectManager, "GetManagedObjects"),
       place_.answersWithin, [this, owner = owner_](const QDBusMessage& reply) {
         if (owner == owner_) takeList(reply);
       });
}

void UDisksBus::takeList(const QDBusMessage& reply) {
  if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != "a{oa{sa{sv}}}") {
    log_.log("[Stashwick] listing the disks: " + reply.errorMessage().toStdString());
    state_ = State::connected;
    return;
  }
  objects_.replaceAll(plainObjects(qdbus_cast<ObjectsArgument>(reply.arguments().at(0))));
  changed_();
  state_ = State::listed;
}

void UDisksBus::lose() {
  if (connection_) {
    // QtDBus lets go of the connection later, on its own thread, and would look at this object there.
    unsubscribe();
    QDBusConnection::disconnectFromBus(connection_->name());
  }
  connection_.reset();
  greetingAnswered_.reset();
  greeting_.reset();
  owner_.clear();
  objects_.replaceAll({});
  state_ = State::unreached;
}

void UDisksBus::noteUnmounted(const std::string& block) {
  objects_.change(block, "Filesystem", {{"MountPoints", base::PropertyList::Array{}}}, {});
}

void UDisksBus::disconnected(const QDBusMessage&) {
  lose();
  changed_();
}

void UDisksBus::nameOwnerChanged(const QDBusMessage& message) {
  if (message.service() != kBusName || message.signature() != "sss") return;
  setOwner(message.arguments().at(2).toString());
}

bool UDisksBus::isOurs(const QDBusMessage& signal, const char* signature) const {
  return !owner_.isEmpty() && signal.service() == owner_ && signal.signature() == signature;
}

void UDisksBus::interfacesAdded(const QDBusMessage& message) {
  if (!isOurs(message, "oa{sa{sv}}")) return;
  const auto arguments = message.arguments();
  objects_.merge(arguments.at(0).value<QDBusObjectPath>().path().toStdString(),
                 plainInterfaces(qdbus_cast<InterfacesArgument>(arguments.at(1))));
  changed_();
}

void UDisksBus::interfacesRemoved(const QDBusMessage& message) {
  if (!isOurs(message, "oas")) return;
  const auto arguments = message.arguments();
  auto names = arguments.at(1).toStringList();
  for (auto& name : names) name = name.mid(name.startsWith(kPrefix) ? kPrefix.size() : 0);
  objects_.removeInterfaces(arguments.at(0).value<QDBusObjectPath>().path().toStdString(), texts(names));
  changed_();
}

void UDisksBus::propertiesChanged(const QDBusMessage& message) {
  if (!isOurs(message, "sa{sv}as")) return;
  const auto arguments = message.arguments();
  const auto interface = arguments.at(0).toString().mid(kPrefix.size()).toStdString();
  objects_.change(message.path().toStdString(), interface,
                  plainProperties(qdbus_cast<QVariantMap>(arguments.at(1))),
                  texts(arguments.at(2).toStringList()));
  changed_();
}

void UDisksBus::call(const std::string& path, const char* interface, const char* method,
                     const QVariantList& arguments, std::chrono::milliseconds deadline, Done done) {
  auto message = QDBusMessage::createMethodCall(owner_, QString::fromStdString(path),
                                                QString(kPrefix) + interface, method);
  message.setArguments(arguments);
  send(message, deadline, [done = std::move(done)](const QDBusMessage& reply) {
    if (reply.type() != QDBusMessage::ReplyMessage) {
      return done(
          {dissenterFromBusError(reply.errorName().toStdString(), reply.errorMessage().toStdString())});
    }
    done({});
  });
}

void UDisksBus::send(const QDBusMessage& message, std::chrono::milliseconds deadline,
                     const Replied& replied) {
  auto* call = new Call(connection_->asyncCall(message, static_cast<int>(deadline.count())), this, replied);
  connect(call, &QDBusPendingCallWatcher::finished, call, [call] {
    call->deleteLater();
    call->replied(call->reply());
  });
}

}  // namespace platform::freedesktop
