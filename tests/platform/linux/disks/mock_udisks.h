#pragma once

#include <QByteArrayList>
#include <QDBusConnection>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <memory>
#include <string>

#include "tests/platform/posix/temporary_folder.h"

// A message bus of the test's own.
class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return address_; }
  // It takes connections, and is mute from now on.
  void freeze();
  void stop();

 private:
  TemporaryFolder folder_;
  QProcess daemon_;
  std::string address_;
};

using Interfaces = QMap<QString, QVariantMap>;

// What is plugged in at once: one drive, and a volume on it.
struct Stick {
  QString device = "sdb";  // its volume is at "sdb1", or at "sdb" where it is not partitioned
  QString label = "STICK";
  bool mounted = false;
  bool partitioned = true;
  QVariantMap drive{};  // properties other than the usual ones
  QVariantMap whole{};
  QVariantMap block{};  // of the volume
  QVariantMap partition{};
  QVariantMap table{};
};

// UDisks2 with disks that a test plugs and pulls, and the part of /sys that goes with them. Needs a
// QCoreApplication. Each call returns when the daemon has done it, and has sent its signals.
class MockUDisks {
 public:
  explicit MockUDisks(const PrivateBus& bus);
  ~MockUDisks();
  MockUDisks(const MockUDisks&) = delete;
  MockUDisks& operator=(const MockUDisks&) = delete;

  std::string sysfs() const { return folder_ / "sys"; }
  // Where a block device's volume is mounted: "sdb1".
  std::string mountPoint(const std::string& block) const { return folder_ / ("media/" + block); }

  void start();
  void stop();
  void freeze();

  // The stick's disk gets the next sequence number, from 1.
  void plug(const Stick& stick);
  void pull(const Stick& stick);

  // Paths are below /org/freedesktop/UDisks2, interfaces without "org.freedesktop.UDisks2.".
  void add(const QString& path, const Interfaces& interfaces);
  void remove(const QString& path);
  void tellAgain(const QString& path);
  void change(const QString& path, const QString& interface, const QVariantMap& properties);
  void mount(const QString& block);
  void unmount(const QString& block);
  void refuseNext(const QString& method, const QString& errorName, const QString& message);
  QStringList calls();

  // A whole disk that has the next sequence number.
  QVariantMap wholeBlock(const QString& device, const QVariantMap& other = {});
  // A block device of that drive ("": none).
  static QVariantMap block(const QString& device, quint64 number, quint64 size, const QString& drive,
                           const QVariantMap& other = {});
  static QVariantMap fileSystemBlock(const QString& device, const QString& drive, const QString& label,
                                     const QVariantMap& other = {});
  static QVariantMap usbDrive(const QVariantMap& other = {});

  static constexpr quint64 kDriveSize = 8'000'000'000;
  static constexpr quint64 kVolumeSize = 7'999'000'000;
  // 2026-11-15 14:05:09 UTC.
  static constexpr quint64 kTimeDetected = 1'794'751'509'000'000;

 private:
  QVariantList control(const QString& method, const QVariantList& arguments);
  QVariantMap mountPoints(const QString& block, bool mounted) const;

  const PrivateBus& bus_;
  TemporaryFolder folder_;
  QProcess daemon_;
  QDBusConnection connection_;
  int sequence_ = 0;
};
