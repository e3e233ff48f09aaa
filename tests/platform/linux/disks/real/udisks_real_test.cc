// Against a real udisksd, which with_real_udisks starts: loop devices come and go.

#include <QProcess>
#include <QUuid>
#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/embedded/volume_folder.h"
#include "platform/linux/udisks_arbitration.h"
#include "platform/linux/udisks_disks.h"
#include "platform/linux/udisks_listing.h"
#include "platform/posix/icu_dates.h"
#include "platform/posix/posix_files.h"
#include "tests/platform/linux/disks/qt_loop.h"
#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"

namespace platform::freedesktop {
namespace {

// What the program prints; a failure when it fails.
std::string run(const QString& program, const QStringList& arguments) {
  QProcess process;
  process.start(program, arguments);
  process.waitForFinished();
  EXPECT_EQ(process.exitCode(), 0) << program.toStdString() << ": "
                                   << process.readAllStandardError().toStdString();
  return process.readAllStandardOutput().trimmed().toStdString();
}

bool isDone(const QString& program, const QStringList& arguments) {
  QProcess process;
  process.start(program, arguments);
  process.waitForFinished();
  return process.exitCode() == 0;
}

// A file of 16 MB as a disk of the machine's: no other test's disk has its label.
class LoopDisk {
 public:
  LoopDisk() { std::filesystem::resize_file(folder_.write("disk", ""), 16 << 20); }
  ~LoopDisk() { detach(); }
  LoopDisk(const LoopDisk&) = delete;
  LoopDisk& operator=(const LoopDisk&) = delete;

  const std::string label = "T" + QUuid::createUuid().toString(QUuid::Id128).left(12).toStdString();

  void format(const QStringList& options = {}, const QStringList& size = {}) {
    run("mkfs.ext4",
        QStringList{"-q", "-L", QString::fromStdString(label)} + options + QStringList{file()} + size);
  }
  void writeTable(const QString& kind, const QString& guid = "") {
    const QString uuid = guid.isEmpty() ? "" : ", uuid=" + guid;
    run("sh",
        {"-c", "printf 'label: " + kind + "\\nstart=2048, size=24576" + uuid + "\\n' | sfdisk -q " + file()});
  }
  // Tells the kernel of the one partition: not every kernel reads tables.
  void addPartition() {
    const auto known = "/sys/class/block/" + device_.section('/', -1) + "p1";
    run("sh", {"-c", "test -d " + known + " || addpart " + device_ + " 1 2048 24576"});
  }
  void attach(const QStringList& options = {}) {
    device_ = QString::fromStdString(
        run("losetup", QStringList{"--find", "--show", "--partscan"} + options + QStringList{file()}));
  }
  const QString& device() const { return device_; }
  void detach() {
    if (!device_.isEmpty()) run("losetup", {"--detach", std::exchange(device_, {})});
  }

 private:
  QString file() const { return QString::fromStdString(folder_ / "disk"); }

  TemporaryFolder folder_;
  QString device_;
};

class UDisksRealTest : public testing::Test {
 protected:
  void record(const char* sign, const ports::DiskRef& disk) {
    const auto name = text(disk, ports::kDADiskDescriptionVolumeNameKey);
    arrived[name] = disk;
    events.push_back(sign + name);
  }
  std::string text(const ports::DiskRef& disk, std::string_view key) {
    const auto description = disks.copyDescription(disk);
    const auto* found = base::find<std::string>(description, key);
    return found ? *found : "";
  }
  bool waitFor(const std::string& event) {
    return loop.runUntil([&] { return std::ranges::find(events, event) != events.end(); });
  }
  ports::DAReturn statusOf(void (ports::DiskArbitration::*operation)(const ports::DiskRef&,
                                                                     ports::DiskCompletion),
                           const ports::DiskRef& disk) {
    std::optional<ports::DAReturn> status;
    (disks.*operation)(disk, [&](const auto& dissenter) {
      status = dissenter ? dissenter->status : ports::kDAReturnSuccess;
    });
    EXPECT_TRUE(loop.runUntil([&] { return status.has_value(); }));
    return status.value_or(ports::kDAReturnError);
  }
  std::string hostPath(const std::string& name) const { return paths.hostPath("/Volumes/" + name); }

  QtLoop loop;
  LoopDisk loopDisk;
  posix::PathMap paths{"/nonexistent/tools", "/nonexistent/volumes"};
  posix::IcuDates dates;
  RecordingLog log;
  UDisksArbitration disks{{loop.queue, paths, dates, log}};
  std::vector<std::string> events;
  std::map<std::string, ports::DiskRef> arrived;
  std::unique_ptr<ports::DiskSession> session =
      disks.createSession({.appeared = [this](const auto& disk) { record("+", disk); },
                           .disappeared = [this](const auto& disk) { record("-", disk); },
                           .approveUnmount = {}});
};

TEST_F(UDisksRealTest, followsADiskFromItsArrivalToItsDeparture) {
  loopDisk.format();
  loopDisk.attach();
  ASSERT_TRUE(waitFor("+" + loopDisk.label));
  const auto disk = arrived[loopDisk.label];
  EXPECT_THAT(text(disk, "DAMediaBSDName"), testing::MatchesRegex("disk[0-9]+s1"));
  EXPECT_EQ(text(disk, "DAVolumeKind"), "ext4");
  EXPECT_EQ(text(disk, "DADeviceProtocol"), "Virtual Interface");
  EXPECT_EQ(base::findNumber(disks.copyDescription(disk), "DAMediaSize"), 16 << 20);

  EXPECT_EQ(statusOf(&ports::DiskArbitration::mount, disk), ports::kDAReturnSuccess);
  // The first mount of a volume that had arrived unmounted shows it anew.
  ASSERT_TRUE(waitFor("-" + loopDisk.label));
  ASSERT_TRUE(loop.runUntil([&] { return arrived[loopDisk.label] != disk; }));
  EXPECT_TRUE(std::filesystem::is_directory(hostPath(loopDisk.label) + "/lost+found"));

  const auto mounted = arrived[loopDisk.label];
  EXPECT_EQ(statusOf(&ports::DiskArbitration::unmount, mounted), ports::kDAReturnSuccess);
  EXPECT_EQ(statusOf(&ports::DiskArbitration::unmount, mounted), ports::kDAReturnNotMounted);
  events.clear();
  loopDisk.detach();
  EXPECT_TRUE(waitFor("-" + loopDisk.label));
  EXPECT_EQ(text(mounted, "DAVolumeName"), loopDisk.label);
}

TEST_F(UDisksRealTest, keepsAClaimedVolumeFromBeingUnmounted) {
  loopDisk.format();
  loopDisk.attach();
  ASSERT_TRUE(waitFor("+" + loopDisk.label));
  EXPECT_EQ(statusOf(&ports::DiskArbitration::mount, arrived[loopDisk.label]), ports::kDAReturnSuccess);
  ASSERT_TRUE(waitFor("-" + loopDisk.label));
  const auto disk = disks.diskFromVolumePath({"/Volumes/" + loopDisk.label, true});
  const auto mountPoint = QString::fromStdString(hostPath(loopDisk.label));

  disks.claim(disk);
  EXPECT_FALSE(isDone("umount", {mountPoint}));
  EXPECT_EQ(statusOf(&ports::DiskArbitration::unmount, disk), ports::kDAReturnBusy);
  disks.unclaim(disk);
  EXPECT_TRUE(isDone("umount", {mountPoint}));
  EXPECT_TRUE(loop.runUntil([&] { return hostPath(loopDisk.label).starts_with("/nonexistent/"); }));
}

TEST_F(UDisksRealTest, knowsAPartitionByItsGUID) {
  loopDisk.writeTable("gpt", "0fc63daf-8483-4772-8e79-3d69d8477de4");
  loopDisk.format({"-E", "offset=1048576"}, {"12M"});
  loopDisk.attach();
  loopDisk.addPartition();
  ASSERT_TRUE(waitFor("+" + loopDisk.label));
  const auto disk = arrived[loopDisk.label];
  EXPECT_EQ(text(disk, "DAMediaUUID"), "0FC63DAF-8483-4772-8E79-3D69D8477DE4");
  EXPECT_EQ(base::findNumber(disks.copyDescription(disk), "DAMediaSize"), 12 << 20);
  EXPECT_THAT(text(disk, "DAMediaBSDName"), testing::MatchesRegex("disk[0-9]+s1"));
  loopDisk.detach();
  EXPECT_TRUE(waitFor("-" + loopDisk.label));
}

TEST_F(UDisksRealTest, tellsWhoLooksOnceTheSame) {
  loopDisk.format();
  loopDisk.attach();
  ASSERT_TRUE(waitFor("+" + loopDisk.label));
  auto description = disks.copyDescription(arrived[loopDisk.label]);
  const auto objects = listUDisks(std::chrono::seconds(20));
  ASSERT_TRUE(objects) << objects.error().message;
  const auto listed = disksOf(*objects, "/sys");
  const auto found = std::ranges::find(listed, loopDisk.label, &UDisksDisk::wantedName);
  ASSERT_NE(found, listed.end());
  for (const auto& [key, value] : found->description) EXPECT_EQ(description[key], value) << key;
}

// What is mounted is known by the same UUID to those who have no daemon to ask.
class MountedDisk : public UDisksRealTest {
 protected:
  void expectSameUUIDWithoutTheDaemon() {
    loopDisk.format({"-E", "offset=1048576"}, {"12M"});
    loopDisk.attach();
    loopDisk.addPartition();
    ASSERT_TRUE(waitFor("+" + loopDisk.label));
    EXPECT_EQ(statusOf(&ports::DiskArbitration::mount, arrived[loopDisk.label]), ports::kDAReturnSuccess);
    ASSERT_TRUE(waitFor("-" + loopDisk.label));
    posix::PosixFiles files(paths);
    const auto folder = embedded::describeFolder(hostPath(loopDisk.label), files, [] { return false; });
    ASSERT_TRUE(folder);
    const auto* uuid = base::find<std::string>(*folder, ports::kDADiskDescriptionMediaUUIDKey);
    ASSERT_TRUE(uuid);
    EXPECT_EQ(*uuid, text(arrived[loopDisk.label], ports::kDADiskDescriptionMediaUUIDKey));
    EXPECT_TRUE(isDone("umount", {QString::fromStdString(hostPath(loopDisk.label))}));
  }
};

TEST_F(MountedDisk, hasTheUUIDOfItsPartition) {
  loopDisk.writeTable("gpt", "0fc63daf-8483-4772-8e79-3d69d8477de4");
  expectSameUUIDWithoutTheDaemon();
}

TEST_F(MountedDisk, hasAUUIDMadeOfWhatItHasElse) {
  loopDisk.writeTable("dos");
  expectSameUUIDWithoutTheDaemon();
}

TEST_F(UDisksRealTest, leavesADiskOfLargeSectorsToOtherTools) {
  loopDisk.format();
  loopDisk.attach({"--sector-size", "4096"});
  QProcess diskutil;
  diskutil.start(DISKUTIL_PROGRAM, {"eraseDisk", "FAT32", "OTHER", loopDisk.device()});
  diskutil.waitForFinished();
  EXPECT_EQ(diskutil.exitCode(), 1);
  EXPECT_EQ(diskutil.readAllStandardError().toStdString(), "diskutil: eraseDisk failed - " +
                                                               loopDisk.device().toStdString() +
                                                               " has sectors of other than 512 bytes\n");
  EXPECT_TRUE(isDone("e2fsck", {"-fn", loopDisk.device()}));
}

TEST_F(UDisksRealTest, renamesAVolume) {
  loopDisk.format();
  loopDisk.attach();
  ASSERT_TRUE(waitFor("+" + loopDisk.label));
  disks.rename(arrived[loopDisk.label], "N" + loopDisk.label);
  EXPECT_TRUE(waitFor("-" + loopDisk.label));
  EXPECT_TRUE(waitFor("+N" + loopDisk.label));
  EXPECT_THAT(log.lines(), testing::IsEmpty());
}

}  // namespace
}  // namespace platform::freedesktop
