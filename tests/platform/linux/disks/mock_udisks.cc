#include "tests/platform/linux/disks/mock_udisks.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QProcessEnvironment>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/prctl.h>

namespace {

constexpr const char* kName = "org.freedesktop.UDisks2";
const char* const kConfiguration =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

// The first line that the program prints.
QByteArray firstLine(QProcess& program) {
  while (!program.canReadLine() && program.waitForReadyRead()) continue;
  return program.readLine().trimmed();
}

// Ends with this process, however that ends.
void start(QProcess& program, const QString& file, const QStringList& arguments) {
  program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
  program.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
  program.start(file, arguments);
}

void end(QProcess& program) {
  program.kill();
  program.waitForFinished();
}

void freezeProgram(const QProcess& program) { ::kill(static_cast<pid_t>(program.processId()), SIGSTOP); }

QVariantMap with(QVariantMap properties, const QVariantMap& other) {
  properties.insert(other);
  return properties;
}

QString nameOfDrive(const Stick& stick) { return "drives/" + stick.device + "_drive"; }
QString blockPath(const QString& device) { return "block_devices/" + device; }
QString fullPath(const QString& path) { return "/org/freedesktop/UDisks2/" + path; }
QString volumeOf(const Stick& stick) { return stick.partitioned ? stick.device + "1" : stick.device; }

}  // namespace

PrivateBus::PrivateBus() {
  const auto configuration = folder_.write("bus.conf", kConfiguration);
  ::start(daemon_, "dbus-daemon",
          {"--nofork", "--print-address", "--config-file=" + QString::fromStdString(configuration)});
  address_ = firstLine(daemon_).toStdString();
}

PrivateBus::~PrivateBus() { stop(); }

void PrivateBus::stop() { end(daemon_); }

void PrivateBus::freeze() { freezeProgram(daemon_); }

MockUDisks::MockUDisks(const PrivateBus& bus)
    : bus_(bus),
      connection_(QDBusConnection::connectToBus(QString::fromStdString(bus.address()), "control")) {
  qDBusRegisterMetaType<Interfaces>();
  qDBusRegisterMetaType<QByteArrayList>();
  std::filesystem::create_directories(folder_ / "media");
  start();
}

MockUDisks::~MockUDisks() {
  stop();
  QDBusConnection::disconnectFromBus("control");
}

void MockUDisks::start() {
  auto environment = QProcessEnvironment::systemEnvironment();
  environment.insert("DBUS_SYSTEM_BUS_ADDRESS", QString::fromStdString(bus_.address()));
  daemon_.setProcessEnvironment(environment);
  ::start(daemon_, "/usr/bin/python3",
          {"-m", "dbusmock", "--system", "--logfile", "/dev/null", "--template", UDISKS2_MOCK, "--parameters",
           QString::fromStdString(R"({"media": ")" + folder_ / "media" + R"("})")});
  EXPECT_EQ(firstLine(daemon_), "ready");
}

void MockUDisks::stop() { end(daemon_); }

void MockUDisks::freeze() { freezeProgram(daemon_); }

QVariantMap MockUDisks::block(const QString& device, quint64 number, quint64 size, const QString& drive,
                              const QVariantMap& other) {
  const QString path = drive.isEmpty() ? "/" : fullPath("drives/" + drive);
  return with({{"Device", QByteArray("/dev/" + device.toUtf8() + '\0')},
               {"DeviceNumber", number},
               {"Drive", QVariant::fromValue(QDBusObjectPath(path))},
               {"Size", size},
               {"ReadOnly", false},
               {"IdUsage", ""},
               {"IdType", ""},
               {"IdLabel", ""},
               {"IdUUID", ""},
               {"HintSystem", false},
               {"HintIgnore", false},
               {"HintAuto", true},
               {"HintIconName", ""},
               {"CryptoBackingDevice", QVariant::fromValue(QDBusObjectPath("/"))}},
              other);
}

QVariantMap MockUDisks::wholeBlock(const QString& device, const QVariantMap& other) {
  const quint64 minor = ++sequence_;
  folder_.write("sys/dev/block/8:" + std::to_string(minor) + "/diskseq", std::to_string(sequence_) + "\n");
  return block(device, 8U << 8 | minor, kDriveSize, device + "_drive", other);
}

QVariantMap MockUDisks::fileSystemBlock(const QString& device, const QString& drive, const QString& label,
                                        const QVariantMap& other) {
  return block(
      device, 0, kVolumeSize, drive,
      with({{"IdUsage", "filesystem"}, {"IdType", "vfat"}, {"IdLabel", label}, {"IdUUID", "CAFE-1234"}},
           other));
}

QVariantMap MockUDisks::usbDrive(const QVariantMap& other) {
  return with({{"Vendor", "ACME"},
               {"Model", "Flash Drive"},
               {"Serial", "0123456789"},
               {"ConnectionBus", "usb"},
               {"Removable", true},
               {"MediaRemovable", true},
               {"Ejectable", true},
               {"TimeMediaDetected", kTimeDetected},
               {"Size", kDriveSize}},
              other);
}

void MockUDisks::plug(const Stick& stick) {
  const QString drive = stick.device + "_drive";
  const QString volume = volumeOf(stick);
  auto whole = wholeBlock(stick.device, stick.whole);
  const Interfaces fileSystem = {{"Filesystem", mountPoints(volume, stick.mounted)}};
  add("drives/" + drive, {{"Drive", usbDrive(stick.drive)}});
  auto block = fileSystemBlock(volume, drive, stick.label, stick.block);
  if (!stick.partitioned) {
    block.insert("DeviceNumber", whole.value("DeviceNumber"));
    return add(blockPath(volume), {{"Block", block}, {"Filesystem", mountPoints(volume, stick.mounted)}});
  }
  add(blockPath(stick.device), {{"Block", whole}, {"PartitionTable", with({{"Type", "dos"}}, stick.table)}});
  const QVariantMap partition = {
      {"Number", 1U},
      {"UUID", "cafe0001-01"},
      {"Table", QVariant::fromValue(QDBusObjectPath(fullPath(blockPath(stick.device))))}};
  add(blockPath(volume), {{"Block", block},
                          {"Partition", with(partition, stick.partition)},
                          {"Filesystem", mountPoints(volume, stick.mounted)}});
}

// In the order in which a stick goes that nobody has unmounted: no word of mount points.
void MockUDisks::pull(const Stick& stick) {
  remove(blockPath(volumeOf(stick)));
  if (stick.partitioned) remove(blockPath(stick.device));
  remove(nameOfDrive(stick));
}

QVariantMap MockUDisks::mountPoints(const QString& block, bool mounted) const {
  QByteArrayList list;
  if (mounted) {
    const auto path = mountPoint(block.toStdString());
    std::filesystem::create_directories(path);
    list.append(QByteArray::fromStdString(path) + '\0');
  }
  return {{"MountPoints", QVariant::fromValue(list)}};
}

void MockUDisks::add(const QString& path, const Interfaces& interfaces) {
  Interfaces full;
  for (auto at = interfaces.begin(); at != interfaces.end(); ++at) {
    full.insert(QString(kName) + "." + at.key(), at.value());
  }
  control("Add", {fullPath(path), QVariant::fromValue(full)});
}

void MockUDisks::remove(const QString& path) { control("Remove", {fullPath(path)}); }

void MockUDisks::tellAgain(const QString& path) { control("TellAgain", {fullPath(path)}); }

void MockUDisks::change(const QString& path, const QString& interface, const QVariantMap& properties) {
  control("Change", {fullPath(path), QString(kName) + "." + interface, properties});
}

void MockUDisks::mount(const QString& block) {
  change(blockPath(block), "Filesystem", mountPoints(block, true));
}

void MockUDisks::unmount(const QString& block) {
  change(blockPath(block), "Filesystem", mountPoints(block, false));
}

void MockUDisks::refuseNext(const QString& method, const QString& errorName, const QString& message) {
  control("RefuseNext", {method, errorName, message});
}

QStringList MockUDisks::calls() { return control("Calls", {}).value(0).toStringList(); }

QVariantList MockUDisks::control(const QString& method, const QVariantList& arguments) {
  auto message = QDBusMessage::createMethodCall(kName, "/org/freedesktop/UDisks2",
                                                "org.freedesktop.UDisks2.Control", method);
  message.setArguments(arguments);
  const auto reply = connection_.call(message);
  EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage)
      << method.toStdString() << ": " << reply.errorMessage().toStdString();
  return reply.arguments();
}
