#include "platform/linux/udisks_arbitration.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "platform/fake/clock.h"
#include "platform/fake/dates.h"
#include "tests/platform/linux/disks/mock_udisks.h"
#include "tests/platform/linux/disks/qt_loop.h"
#include "tests/platform/posix/recording_log.h"

namespace platform::freedesktop {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The main queue, where delays pass when the test says so.
class HeldDelays : public ports::MainQueue {
 public:
  explicit HeldDelays(ports::MainQueue& queue) : queue_(queue) {}
  bool isMainThread() const override { return queue_.isMainThread(); }
  void post(std::function<void()> closure) override { queue_.post(std::move(closure)); }
  void postAfter(double seconds, std::function<void()> closure) override {
    delayed_.emplace_back(seconds, std::move(closure));
  }
  bool performAndWait(const std::function<void()>& closure) override {
    return queue_.performAndWait(closure);
  }

  std::vector<double> delays() const {
    std::vector<double> delays;
    for (const auto& delayed : delayed_) delays.push_back(delayed.first);
    return delays;
  }
  void letDelaysPass() {
    for (auto& [seconds, closure] : std::exchange(delayed_, {})) queue_.post(std::move(closure));
  }

 private:
  ports::MainQueue& queue_;
  std::vector<std::pair<double, std::function<void()>>> delayed_;
};

class UDisksArbitrationTest : public testing::Test {
 protected:
  using Events = std::vector<std::string>;

  UDisksArbitration::Settings settings() const {
    return {.busAddress = bus.address(), .sysfs = udisks.sysfs()};
  }
  void begin() { begin(settings()); }
  void begin(const UDisksArbitration::Settings& settings) {
    disks.emplace(UDisksArbitration::Surroundings{queue, paths, dates, log}, settings);
    session = disks->createSession({.appeared = [this](const auto& disk) { record("+", disk); },
                                    .disappeared = [this](const auto& disk) { record("-", disk); },
                                    .approveUnmount = {}});
  }
  void record(const char* sign, const ports::DiskRef& disk) {
    const auto bsdName = text(disk, ports::kDADiskDescriptionMediaBSDNameKey);
    auto name = text(disk, ports::kDADiskDescriptionVolumeNameKey);
    last = disk;
    if (name.starts_with("WITNESS")) witness = name;
    if (name.starts_with("WITNESS") || name.empty()) return;
    arrived[name] = disk;
    events.push_back(sign + name);
  }
  std::string text(const ports::DiskRef& disk, std::string_view key) {
    const auto description = disks->copyDescription(disk);
    const auto* found = base::find<std::string>(description, key);
    return found ? *found : "";
  }
  void waitFor(const std::string& event) {
    EXPECT_TRUE(loop.runUntil([&] { return std::ranges::find(events, event) != events.end(); })) << event;
  }
  // Serves until all that was told so far has been taken in.
  void settle() {
    const auto name = "WITNESS" + std::to_string(++witnesses);
    udisks.plug({.device = "sdw" + QString::number(witnesses), .label = name.c_str(), .mounted = true});
    EXPECT_TRUE(loop.runUntil([&] { return witness == name; }));
  }
  std::optional<ports::Dissenter> outcomeOf(void (ports::DiskArbitration::*operation)(const ports::DiskRef&,
                                                                                      ports::DiskCompletion),
                                            const ports::DiskRef& disk) {
    std::optional<std::optional<ports::Dissenter>> outcome;
    ((*disks).*operation)(disk, [&](const auto& dissenter) { outcome = dissenter; });
    EXPECT_TRUE(loop.runUntil([&] { return outcome.has_value(); }));
    return outcome.value_or(std::nullopt);
  }
  ports::DAReturn statusOf(void (ports::DiskArbitration::*operation)(const ports::DiskRef&,
                                                                     ports::DiskCompletion),
                           const ports::DiskRef& disk) {
    return outcomeOf(operation, disk).value_or(ports::Dissenter{ports::kDAReturnSuccess, ""}).status;
  }
  std::string hostPath(const std::string& logical) const { return paths.hostPath(logical); }

  QtLoop loop;
  PrivateBus bus;
  MockUDisks udisks{bus};
  HeldDelays queue{loop.queue};
  posix::PathMap paths{"/nonexistent/tools", "/nonexistent/volumes"};
  fake::Clock clock;
  fake::Dates dates{clock};
  RecordingLog log;
  std::optional<UDisksArbitration> disks;
  std::unique_ptr<ports::DiskSession> session;
  Events events;
  std::map<std::string, ports::DiskRef> arrived;
  ports::DiskRef last;
  std::string witness;
  int witnesses = 0;
};

TEST_F(UDisksArbitrationTest, describesAStick) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  auto description = disks->copyDescription(arrived["STICK"]);
  EXPECT_TRUE(base::find<std::string>(description, ports::kDADiskDescriptionMediaUUIDKey));
  description.erase(std::string(ports::kDADiskDescriptionMediaUUIDKey));
  const ports::DiskDescription expected = {
      {"DAVolumeName", "STICK"},
      {"DAVolumeKind", "msdos"},
      {"DAVolumeMountable", true},
      {"DAMediaBSDName", "disk1s1"},
      {"DAMediaEjectable", true},
      {"DAMediaIcon", "drive-removable-media-usb"},
      {"DAMediaSize", static_cast<std::int64_t>(MockUDisks::kVolumeSize)},
      {"DAMediaWhole", false},
      {"DAMediaWritable", true},
      {"DADeviceInternal", false},
      {"DADeviceProtocol", "USB"},
      {"DADeviceVendor", "ACME"},
      {"DAAppearanceTime", fake::Clock::kStart.secondsSinceReferenceDate},
  };
  EXPECT_EQ(description, expected);
}

TEST_F(UDisksArbitrationTest, reportsWholeDisksAsSuch) {
  begin();
  udisks.plug({.mounted = true});
  std::vector<ports::DiskRef> wholes;
  const auto other = disks->createSession({.appeared =
                                               [&](const ports::DiskRef& disk) {
                                                 const auto description = disks->copyDescription(disk);
                                                 if (*base::find<bool>(description, "DAMediaWhole"))
                                                   wholes.push_back(disk);
                                               },
                                           .disappeared = {},
                                           .approveUnmount = {}});
  waitFor("+STICK");
  ASSERT_TRUE(loop.runUntil([&] { return !wholes.empty(); }));
  EXPECT_EQ(text(wholes.front(), "DAMediaBSDName"), "disk1");
  EXPECT_EQ(statusOf(&ports::DiskArbitration::mount, wholes.front()), ports::kDAReturnUnsupported);
}

TEST_F(UDisksArbitrationTest, showsAnUnpartitionedStickAsItsFirstSlice) {
  begin();
  udisks.plug({.mounted = true, .partitioned = false});
  waitFor("+STICK");
  const auto description = disks->copyDescription(arrived["STICK"]);
  EXPECT_EQ(*base::find<std::string>(description, "DAMediaBSDName"), "disk1s1");
  EXPECT_FALSE(*base::find<bool>(description, "DAMediaWhole"));
}

TEST_F(UDisksArbitrationTest, namesADiskAnewEachTimeItIsPlugged) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  udisks.pull({});
  waitFor("-STICK");
  events.clear();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  EXPECT_EQ(text(arrived["STICK"], "DAMediaBSDName"), "disk2s1");
}

TEST_F(UDisksArbitrationTest, recognisesAnMBRStickThatComesBack) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  const auto before = text(arrived["STICK"], "DAMediaUUID");
  udisks.pull({});
  waitFor("-STICK");
  udisks.plug({.device = "sdc", .label = "OTHER", .mounted = true, .block = {{"IdUUID", "BEEF-5678"}}});
  waitFor("+OTHER");
  events.clear();
  udisks.plug({.device = "sdd", .mounted = true});
  waitFor("+STICK");
  EXPECT_EQ(text(arrived["STICK"], "DAMediaUUID"), before);
  EXPECT_NE(text(arrived["OTHER"], "DAMediaUUID"), before);
}

TEST_F(UDisksArbitrationTest, takesTheGUIDOfAPartitionThatHasOne) {
  begin();
  udisks.plug({.mounted = true,
               .partition = {{"UUID", "0fc63daf-8483-4772-8e79-3d69d8477de4"}},
               .table = {{"Type", "gpt"}}});
  waitFor("+STICK");
  EXPECT_EQ(text(arrived["STICK"], "DAMediaUUID"), "0FC63DAF-8483-4772-8E79-3D69D8477DE4");
}

TEST_F(UDisksArbitrationTest, keepsVolumesOfOneNameApart) {
  begin();
  udisks.plug({.device = "sdb", .mounted = true});
  waitFor("+STICK");
  udisks.plug({.device = "sdc", .mounted = true});
  waitFor("+STICK 1");
  EXPECT_EQ(hostPath("/Volumes/STICK"), udisks.mountPoint("sdb1"));
  EXPECT_EQ(hostPath("/Volumes/STICK 1"), udisks.mountPoint("sdc1"));
  udisks.pull({.device = "sdb"});
  waitFor("-STICK");
  EXPECT_EQ(hostPath("/Volumes/STICK"), "/nonexistent/volumes/STICK");
  EXPECT_EQ(hostPath("/Volumes/STICK 1"), udisks.mountPoint("sdc1"));
  EXPECT_EQ(disks->diskFromVolumePath({"/Volumes/STICK 1", true}), arrived["STICK 1"]);
}

TEST_F(UDisksArbitrationTest, namesAVolumeWithoutALabelByItsDrive) {
  begin();
  udisks.plug({.label = "", .mounted = true});
  waitFor("+Flash Drive 8 GB");
  EXPECT_EQ(hostPath("/Volumes/Flash Drive 8 GB"), udisks.mountPoint("sdb1"));
}

TEST_F(UDisksArbitrationTest, makesNoPathOfALabelThatWouldLeadElsewhere) {
  begin();
  udisks.plug({.device = "sdb", .label = "..", .mounted = true});
  udisks.plug({.device = "sdc", .label = "../../etc", .mounted = true});
  waitFor("+Flash Drive 8 GB");
  waitFor("+.._.._etc");
  EXPECT_EQ(hostPath("/Volumes/.._.._etc"), udisks.mountPoint("sdc1"));
}

TEST_F(UDisksArbitrationTest, waitsForSomebodyToMountAStickBeforeItTellsOfIt) {
  begin();
  udisks.plug({});
  settle();
  EXPECT_THAT(events, IsEmpty());
  udisks.mount("sdb1");
  waitFor("+STICK");
  EXPECT_EQ(hostPath("/Volumes/STICK"), udisks.mountPoint("sdb1"));
  queue.letDelaysPass();
  settle();
  EXPECT_THAT(udisks.calls(), IsEmpty());
  EXPECT_THAT(events, ElementsAre("+STICK"));
}

TEST_F(UDisksArbitrationTest, mountsAStickThatNobodyHasMountedInTwoSeconds) {
  begin();
  udisks.plug({});
  settle();
  EXPECT_THAT(queue.delays(), ElementsAre(2.0));
  queue.letDelaysPass();
  waitFor("+STICK");
  EXPECT_THAT(udisks.calls(), ElementsAre("Mount sdb1 auth.no_user_interaction"));
  EXPECT_EQ(hostPath("/Volumes/STICK"), udisks.mountPoint("sdb1"));
}

TEST_F(UDisksArbitrationTest, mountsNothingThatIsGoneByThen) {
  begin();
  udisks.plug({});
  settle();
  udisks.pull({});
  settle();
  queue.letDelaysPass();
  settle();
  EXPECT_THAT(udisks.calls(), IsEmpty());
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(UDisksArbitrationTest, tellsOfAStickThatCannotBeMountedAndAgainWhenItIs) {
  begin();
  udisks.refuseNext("Mount", "org.freedesktop.UDisks2.Error.NotAuthorizedCanObtain", "Not authorized");
  udisks.plug({});
  settle();
  queue.letDelaysPass();
  waitFor("+STICK");
  EXPECT_THAT(log.lines(), ElementsAre("[Stashwick] mounting \"STICK\": Not authorized"));
  EXPECT_EQ(hostPath("/Volumes/STICK"), "/nonexistent/volumes/STICK");
  udisks.mount("sdb1");
  settle();
  EXPECT_THAT(events, ElementsAre("+STICK", "-STICK", "+STICK"));
}

TEST_F(UDisksArbitrationTest, keepsAVolumeThatIsUnmountedAndMountedAgain) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  udisks.unmount("sdb1");
  settle();
  EXPECT_EQ(hostPath("/Volumes/STICK"), "/nonexistent/volumes/STICK");
  udisks.mount("sdb1");
  settle();
  EXPECT_EQ(hostPath("/Volumes/STICK"), udisks.mountPoint("sdb1"));
  EXPECT_THAT(events, ElementsAre("+STICK"));
}

TEST_F(UDisksArbitrationTest, mountsNeitherInternalVolumesNorWhatTheSystemLeavesAlone) {
  begin();
  udisks.plug({.device = "sda", .label = "DISK", .drive = {{"ConnectionBus", ""}, {"Removable", false}}});
  udisks.plug({.device = "sdb", .label = "SYSTEM", .block = {{"HintSystem", true}}});
  udisks.plug({.device = "sdc", .label = "MANUAL", .block = {{"HintAuto", false}}});
  waitFor("+DISK");
  waitFor("+SYSTEM");
  waitFor("+MANUAL");
  EXPECT_THAT(queue.delays(), IsEmpty());
  const auto isInternal = [this](const char* name) {
    return *base::find<bool>(disks->copyDescription(arrived[name]), "DADeviceInternal");
  };
  EXPECT_TRUE(isInternal("DISK"));
  EXPECT_TRUE(isInternal("SYSTEM"));
  EXPECT_FALSE(isInternal("MANUAL"));
}

TEST_F(UDisksArbitrationTest, leavesOutWhatIsToBeIgnored) {
  begin();
  udisks.plug({.mounted = true, .block = {{"HintIgnore", true}}});
  settle();
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(UDisksArbitrationTest, showsAnEncryptedVolumeOnceItIsUnlocked) {
  begin();
  udisks.plug({.block = {{"IdUsage", "crypto"}, {"IdType", "crypto_LUKS"}}});
  udisks.remove("block_devices/sdb1");
  udisks.add(
      "block_devices/sdb1",
      {{"Block", MockUDisks::block("sdb1", 0, MockUDisks::kVolumeSize, "sdb_drive", {{"IdUsage", "crypto"}})},
       {"Partition",
        {{"Number", 1U},
         {"UUID", "cafe0001-01"},
         {"Table", QVariant::fromValue(QDBusObjectPath("/org/freedesktop/UDisks2/block_devices/sdb"))}}},
       {"Encrypted", {}}});
  settle();
  EXPECT_THAT(events, IsEmpty());
  const auto backing = QVariant::fromValue(QDBusObjectPath("/org/freedesktop/UDisks2/block_devices/sdb1"));
  udisks.add(
      "block_devices/dm_2d0",
      {{"Block", MockUDisks::fileSystemBlock("dm-0", "", "SECRET", {{"CryptoBackingDevice", backing}})},
       {"Filesystem", {{"MountPoints", QVariant::fromValue(QByteArrayList())}}}});
  udisks.mount("dm_2d0");
  waitFor("+SECRET");
  EXPECT_EQ(text(arrived["SECRET"], "DADeviceProtocol"), "USB");
  EXPECT_EQ(text(arrived["SECRET"], "DADeviceVendor"), "ACME");
  EXPECT_EQ(text(arrived["SECRET"], "DAMediaBSDName"), "disk1s1");
  udisks.remove("block_devices/dm_2d0");
  waitFor("-SECRET");
}

TEST_F(UDisksArbitrationTest, takesInWhatIsToldInPieces) {
  begin();
  const auto table = QVariant::fromValue(QDBusObjectPath("/org/freedesktop/UDisks2/block_devices/sdb"));
  udisks.add("block_devices/sdb1", {{"Block", MockUDisks::block("sdb1", 0, 0, "sdb_drive")},
                                    {"Partition", {{"Number", 1U}, {"UUID", ""}, {"Table", table}}}});
  udisks.add("block_devices/sdb", {{"Block", udisks.wholeBlock("sdb")}});
  udisks.change("block_devices/sdb1", "Block", {{"Size", MockUDisks::kVolumeSize}});
  udisks.add("drives/sdb_drive", {{"Drive", MockUDisks::usbDrive()}});
  settle();
  EXPECT_THAT(events, IsEmpty());
  // What formatting tells: only the file system is new.
  udisks.change("block_devices/sdb1", "Block", {{"IdLabel", "FORMATTED"}, {"IdType", "exfat"}});
  udisks.add("block_devices/sdb1",
             {{"Filesystem", {{"MountPoints", QVariant::fromValue(QByteArrayList())}}}});
  udisks.mount("sdb1");
  waitFor("+FORMATTED");
  EXPECT_EQ(text(arrived["FORMATTED"], "DAVolumeKind"), "exfat");
}

TEST_F(UDisksArbitrationTest, tellsOnceWhatTheDaemonRepeats) {
  begin();
  udisks.plug({.mounted = true});
  udisks.tellAgain("block_devices/sdb1");
  udisks.tellAgain("block_devices/sdb");
  udisks.add("jobs/1", {{"Job", {{"Operation", "filesystem-mount"}}}});
  udisks.remove("jobs/1");
  settle();
  udisks.tellAgain("block_devices/sdb1");
  settle();
  EXPECT_THAT(events, ElementsAre("+STICK"));
}

TEST_F(UDisksArbitrationTest, heedsNobodyElse) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  auto other = QDBusConnection::connectToBus(QString::fromStdString(bus.address()), "other");
  auto removed = QDBusMessage::createSignal("/org/freedesktop/UDisks2", "org.freedesktop.DBus.ObjectManager",
                                            "InterfacesRemoved");
  removed.setArguments({QVariant::fromValue(QDBusObjectPath("/org/freedesktop/UDisks2/block_devices/sdb1")),
                        QStringList{"org.freedesktop.UDisks2.Filesystem"}});
  EXPECT_TRUE(other.send(removed));
  // The bus has passed the signal on before it answers.
  other.call(QDBusMessage::createMethodCall("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId"));
  QDBusConnection::disconnectFromBus("other");
  settle();
  EXPECT_THAT(events, ElementsAre("+STICK"));
}

TEST_F(UDisksArbitrationTest, keepsTheLastDescriptionOfAStickThatIsPulledWhileItIsMounted) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  const auto description = disks->copyDescription(arrived["STICK"]);
  disks->claim(arrived["STICK"]);
  udisks.pull({});
  waitFor("-STICK");
  EXPECT_EQ(disks->copyDescription(last), description);
  EXPECT_EQ(hostPath("/Volumes/STICK"), "/nonexistent/volumes/STICK");
  EXPECT_EQ(statusOf(&ports::DiskArbitration::unmount, arrived["STICK"]), ports::kDAReturnNotFound);
}

TEST_F(UDisksArbitrationTest, losesItsDisksWithTheDaemonAndFindsThemWithTheNext) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  udisks.stop();
  waitFor("-STICK");
  EXPECT_EQ(disks->diskFromVolumePath({"/Volumes/STICK", true}), nullptr);
  events.clear();
  udisks.start();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
}

TEST_F(UDisksArbitrationTest, listsWhatWasThereBefore) {
  udisks.plug({.mounted = true});
  begin();
  waitFor("+STICK");
  EXPECT_EQ(hostPath("/Volumes/STICK"), udisks.mountPoint("sdb1"));
}

TEST_F(UDisksArbitrationTest, waitsForADaemonThatIsNotThereYet) {
  udisks.stop();
  begin();
  ASSERT_NE(session, nullptr);
  udisks.start();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
}

TEST_F(UDisksArbitrationTest, hasNoSessionsWithoutABus) {
  auto nowhere = settings();
  nowhere.busAddress = "unix:path=" + udisks.mountPoint("no-socket");
  begin(nowhere);
  EXPECT_EQ(session, nullptr);
}

TEST_F(UDisksArbitrationTest, losesItsDisksWithTheBus) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  bus.stop();
  waitFor("-STICK");
  EXPECT_EQ(disks->createSession({}), nullptr);
  EXPECT_EQ(statusOf(&ports::DiskArbitration::unmount, arrived["STICK"]), ports::kDAReturnNotFound);
}

TEST_F(UDisksArbitrationTest, completesWhatTheBusTakesWithIt) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  udisks.freeze();
  std::optional<std::optional<ports::Dissenter>> outcome;
  disks->unmount(arrived["STICK"], [&](const auto& dissenter) { outcome = dissenter; });
  queue.post([&] { bus.stop(); });
  EXPECT_TRUE(loop.runUntil([&] { return outcome.has_value(); }));
  EXPECT_TRUE(outcome->has_value());
}

TEST_F(UDisksArbitrationTest, doesNotWaitForABusThatIsMute) {
  bus.freeze();
  begin();
  EXPECT_NE(session, nullptr);
  bool served = false;
  queue.post([&] { served = true; });
  EXPECT_TRUE(loop.runUntil([&] { return served; }));
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(UDisksArbitrationTest, saysWhyAVolumeIsNotUnmounted) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  udisks.refuseNext("Unmount", "org.freedesktop.UDisks2.Error.DeviceBusy", "target is busy");
  const auto dissenter = outcomeOf(&ports::DiskArbitration::unmount, arrived["STICK"]);
  ASSERT_TRUE(dissenter.has_value());
  EXPECT_EQ(dissenter->status, ports::kDAReturnBusy);
  EXPECT_EQ(dissenter->statusString, "target is busy");
  EXPECT_EQ(hostPath("/Volumes/STICK"), udisks.mountPoint("sdb1"));
}

TEST_F(UDisksArbitrationTest, refusesToMountTwiceAndToUnmountTwice) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  EXPECT_EQ(statusOf(&ports::DiskArbitration::mount, arrived["STICK"]), ports::kDAReturnBusy);
  EXPECT_EQ(statusOf(&ports::DiskArbitration::unmount, arrived["STICK"]), ports::kDAReturnSuccess);
  EXPECT_EQ(statusOf(&ports::DiskArbitration::unmount, arrived["STICK"]), ports::kDAReturnNotMounted);
  EXPECT_EQ(statusOf(&ports::DiskArbitration::mount, arrived["STICK"]), ports::kDAReturnSuccess);
  EXPECT_EQ(hostPath("/Volumes/STICK"), udisks.mountPoint("sdb1"));
}

TEST_F(UDisksArbitrationTest, ejectsTheMediumOnceItIsUnmounted) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  EXPECT_EQ(statusOf(&ports::DiskArbitration::eject, arrived["STICK"]), ports::kDAReturnSuccess);
  EXPECT_THAT(udisks.calls(), ElementsAre("Unmount sdb1", "Eject sdb_drive"));
}

TEST_F(UDisksArbitrationTest, leavesAloneWhatCannotBeEjected) {
  begin();
  udisks.plug({.mounted = true, .drive = {{"Ejectable", false}}});
  waitFor("+STICK");
  EXPECT_EQ(statusOf(&ports::DiskArbitration::eject, arrived["STICK"]), ports::kDAReturnUnsupported);
  EXPECT_THAT(udisks.calls(), IsEmpty());
}

TEST_F(UDisksArbitrationTest, completesWhatTheDaemonDoesNotAnswerInTime) {
  auto hasty = settings();
  hasty.actsWithin = std::chrono::milliseconds(50);
  begin(hasty);
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  udisks.freeze();
  EXPECT_EQ(statusOf(&ports::DiskArbitration::unmount, arrived["STICK"]), ports::kDAReturnNotReady);
}

TEST_F(UDisksArbitrationTest, tellsOfARenamedVolumeUnderItsNewName) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  disks->rename(arrived["STICK"], "a/b");
  disks->rename(arrived["STICK"], "RENAMED");
  waitFor("+RENAMED");
  EXPECT_THAT(events, ElementsAre("+STICK", "-STICK", "+RENAMED"));
  EXPECT_THAT(udisks.calls(), ElementsAre("SetLabel sdb1 RENAMED"));
  EXPECT_EQ(hostPath("/Volumes/RENAMED"), udisks.mountPoint("sdb1"));
  EXPECT_EQ(hostPath("/Volumes/STICK"), "/nonexistent/volumes/STICK");
  EXPECT_THAT(log.lines(),
              ElementsAre("[Stashwick] renaming a volume to \"a/b\": a volume cannot have this name"));
}

TEST_F(UDisksArbitrationTest, logsWhyAVolumeIsNotRenamed) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  udisks.refuseNext("SetLabel", "org.freedesktop.UDisks2.Error.Failed", "Cannot set label on mounted device");
  disks->rename(arrived["STICK"], "RENAMED");
  EXPECT_TRUE(loop.runUntil([&] { return !log.lines().empty() || !udisks.calls().isEmpty(); }));
  settle();
  EXPECT_THAT(
      log.lines(),
      ElementsAre("[Stashwick] renaming a volume to \"RENAMED\": Cannot set label on mounted device"));
}

TEST_F(UDisksArbitrationTest, keepsTheNameOfAVolumeWhileItIsClaimed) {
  begin();
  udisks.plug({.mounted = true});
  waitFor("+STICK");
  disks->claim(arrived["STICK"]);
  udisks.change("block_devices/sdb1", "Block", {{"IdLabel", "RENAMED"}});
  settle();
  EXPECT_THAT(events, ElementsAre("+STICK"));
  EXPECT_EQ(hostPath("/Volumes/STICK"), udisks.mountPoint("sdb1"));
  disks->unclaim(arrived["STICK"]);
  waitFor("+RENAMED");
  EXPECT_THAT(events, ElementsAre("+STICK", "-STICK", "+RENAMED"));
}

TEST_F(UDisksArbitrationTest, stampsADiskWithoutADriveWithTheMomentItCame) {
  begin();
  settle();
  udisks.add("block_devices/loop0",
             {{"Block", udisks.wholeBlock("loop0", {{"Drive", QVariant::fromValue(QDBusObjectPath("/"))},
                                                    {"IdLabel", "IMAGE"}})},
              {"Loop", {{"BackingFile", QByteArray("/tmp/a.img\0", 11)}}},
              {"Filesystem", {{"MountPoints", QVariant::fromValue(QByteArrayList())}}}});
  waitFor("+IMAGE");
  EXPECT_EQ(text(arrived["IMAGE"], "DADeviceProtocol"), "Virtual Interface");
  EXPECT_EQ(base::findNumber(disks->copyDescription(arrived["IMAGE"]), "DAAppearanceTime"),
            fake::Clock::kStart.secondsSinceReferenceDate);
}

}  // namespace
}  // namespace platform::freedesktop
