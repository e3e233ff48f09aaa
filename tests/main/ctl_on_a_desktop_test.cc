// The command line where there is UDisks2 and, in most tests, an agent on the session bus.

#include <QCoreApplication>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "app/agent_app_delegate.h"
#include "devices/removable_device_center.h"
#include "platform/fake/world.h"
#include "platform/linux/udisks_arbitration.h"
#include "platform/posix/folder_lock.h"
#include "platform/posix/icu_dates.h"
#include "platform/posix/posix_archives.h"
#include "platform/posix/posix_files.h"
#include "tests/e2e/agent_world.h"
#include "tests/platform/linux/disks/mock_udisks.h"
#include "tests/platform/linux/disks/qt_loop.h"
#include "tests/platform/posix/recording_log.h"

namespace {

namespace fs = std::filesystem;
using platform::freedesktop::UDisksArbitration;
using testing::HasSubstr;
using testing::SizeIs;

// Microseconds since 1970: before and after whatever is started by a test, which the agent asks about.
constexpr quint64 kBefore = 1'000'000'000'000'000;
constexpr quint64 kLater = 2'051'222'400'000'000;

// Disks of this machine that the kernel numbers: each stands for a stick's.
std::vector<quint64> numberedDisks() {
  std::vector<quint64> disks;
  for (const auto& entry : fs::directory_iterator("/sys/dev/block")) {
    unsigned major = 0;
    unsigned minor = 0;
    if (fs::exists(entry.path() / "diskseq") &&
        std::sscanf(entry.path().filename().c_str(), "%u:%u", &major, &minor) == 2)
      disks.push_back(makedev(major, minor));
  }
  std::ranges::sort(disks);
  return disks;
}

class CtlOnADesktop : public AgentWorld {
 protected:
  CtlOnADesktop() {
    environment["DBUS_SYSTEM_BUS_ADDRESS"] = bus.address();
    environment["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
    environment["DISPLAY"] = ":none";
    environment["QT_QPA_PLATFORM"] = "offscreen";
  }

  // "STICK at /media/sdb1", one line each.
  std::string volumes() {
    return shell(std::string("\"") + CTL_PROGRAM +
                 "\" volumes --json | python3 -c 'import json, sys\n"
                 "for volume in json.load(sys.stdin): print(volume[\"name\"], \"at\", volume[\"place\"])'")
        .output;
  }

  // Its volume is a folder with files, as if it were mounted.
  Stick stick(const QString& device, const QString& label, quint64 appeared = kBefore) {
    const auto disks = numberedDisks();
    EXPECT_GT(disks.size(), plugged);
    Stick stick{.device = device, .label = label, .mounted = true};
    stick.drive = {{"TimeMediaDetected", appeared}, {"Serial", device}};
    stick.whole = {{"DeviceNumber", disks.at(plugged++)}};
    std::ofstream((fs::create_directories(placeOf(device)), placeOf(device) + "/notes.txt")) << "notes\n";
    return stick;
  }
  std::string placeOf(const QString& device) const { return udisks.mountPoint(device.toStdString() + "1"); }

  // The agent with a status bar that nobody sees, and who listens to what it tells.
  void startDesktopAgent() {
    monitor = start({"gdbus", "monitor", "--session", "--dest", "com.stashwick.Agent"});
    monitor->expect("does not have an owner");
    agent = startAgent({});
    monitor->expect("is owned by");
  }
  void plug(const Stick& stick) {
    udisks.plug(stick);
    if (agent) monitor->expect("StateChanged");
  }

  std::size_t plugged = 0;
  QtLoop loop;
  PrivateBus bus;
  MockUDisks udisks{bus};
  std::unique_ptr<Program> agent;
  std::unique_ptr<Program> monitor;
};

// What the agent makes of UDisks2, in this process.
class AgentsView {
 public:
  AgentsView(QtLoop& loop, const std::string& address, std::size_t volumes)
      : disks_({loop.queue, paths_, dates_, log_}, {.busAddress = address}),
        archives_(paths_, log_),
        files_(paths_),
        host_{disks_,
              world_.host().keychain,
              world_.host().desktop,
              world_.host().tools,
              loop.queue,
              files_,
              archives_,
              world_.host().defaults,
              world_.host().bundle,
              dates_,
              world_.host().user,
              log_,
              world_.host().notifications},
        center_(host_),
        agent_(ZQAgentAppDelegate::init(host_)) {
    EXPECT_TRUE(loop.runUntil([&] { return center_.availableDevices().size() == volumes; }));
  }

  ZQAgentAppDelegate& agent() { return *agent_; }
  std::shared_ptr<ZQRemovableDevice> device(const std::string& name) {
    for (const auto& device : center_.availableDevices())
      if (device->name() == name) return device;
    ADD_FAILURE() << "no " << name;
    return nullptr;
  }

 private:
  platform::posix::PathMap paths_{"/nonexistent/tools", "/nonexistent/volumes"};
  platform::posix::IcuDates dates_;
  RecordingLog log_;
  platform::fake::World world_;
  UDisksArbitration disks_;
  platform::posix::PosixArchives archives_;
  platform::posix::PosixFiles files_;
  ports::Host host_;
  ZQRemovableDeviceCenter center_;
  std::shared_ptr<ZQAgentAppDelegate> agent_;
};

TEST_F(CtlOnADesktop, listsTheSticksOfUDisks2ByNamesOfTheirOwn) {
  plug(stick("sdb", "STICK"));
  plug(stick("sdc", "STICK"));
  EXPECT_EQ(volumes(), "STICK at " + placeOf("sdb") + "\nSTICK 1 at " + placeOf("sdc") + "\n");
}

TEST_F(CtlOnADesktop, listsNothingThatTheAgentWouldNotAskAbout) {
  auto internal = stick("sdb", "DISK");
  internal.drive.insert("Removable", false);
  internal.drive.insert("ConnectionBus", "");
  plug(internal);
  EXPECT_THAT(ctl({"volumes"}).output, HasSubstr("No volume is attached."));
}

TEST_F(CtlOnADesktop, knowsAStickThatIsNotMounted) {
  auto unmounted = stick("sdb", "STICK");
  unmounted.mounted = false;
  plug(unmounted);
  EXPECT_EQ(volumes(), "STICK at \n");
  EXPECT_EQ(ctl({"auto", "STICK", "on"}).status, 0);
  const auto backup = ctl({"backup", "STICK"});
  EXPECT_EQ(backup.status, 3);
  EXPECT_THAT(backup.errors, HasSubstr("\"STICK\" is not mounted"));
}

TEST_F(CtlOnADesktop, sharesTheDecisionsOfTheAgent) {
  plug(stick("sdb", "STICK"));
  plug(stick("sdc", "STICK"));
  ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
  AgentsView view(loop, bus.address(), 2);
  EXPECT_EQ(ctl({"auto", "STICK 1", "on"}).status, 0);
  EXPECT_EQ(view.agent()._backupStateForDevice(*view.device("STICK 1")), 1);
  EXPECT_EQ(view.agent()._backupStateForDevice(*view.device("STICK")), 0);
  view.agent()._addDeviceToAutomaticBackups(*view.device("STICK"), -1);
  EXPECT_EQ(ctl({"auto", "STICK"}).output, "off\n");
  EXPECT_EQ(ctl({"auto", "STICK 1"}).output, "on\n");
}

TEST_F(CtlOnADesktop, tellsTheAgentWhatToDoWithAStickThatComesLater) {
  const auto arriving = stick("sdb", "STICK", kLater);
  plug(arriving);
  EXPECT_EQ(ctl({"auto", "STICK", "on"}).status, 0);
  udisks.pull(arriving);
  startDesktopAgent();
  plug(arriving);
  for (int change = 0; change < 20 && imagesOf("STICK").empty(); ++change) monitor->expect("StateChanged");
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1)) << agent->errors();
}

TEST_F(CtlOnADesktop, tellsTheRunningAgentWhatToDoWithAStick) {
  startDesktopAgent();
  auto again = stick("sdb", "STICK");
  plug(again);
  EXPECT_EQ(ctl({"auto", "STICK", "on"}).status, 0);
  udisks.pull(again);
  monitor->expect("StateChanged");
  again.drive.insert("TimeMediaDetected", kLater);
  plug(again);
  for (int change = 0; change < 20 && imagesOf("STICK").empty(); ++change) monitor->expect("StateChanged");
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1)) << agent->errors();
}

TEST_F(CtlOnADesktop, namesVolumesAsTheRunningAgentDoes) {
  startDesktopAgent();
  plug(stick("sdc", "STICK"));
  plug(stick("sdb", "STICK"));
  EXPECT_EQ(volumes(), "STICK at " + placeOf("sdc") + "\nSTICK 1 at " + placeOf("sdb") + "\n");
}

TEST_F(CtlOnADesktop, hasTheRunningAgentMakeABackup) {
  startDesktopAgent();
  plug(stick("sdb", "STICK"));
  const auto backup = openCtl({"backup", "STICK"});
  backup->expect("The agent backs up \"STICK\"");
  backup->expect("STICK: backed up to STICK/1, ");
  EXPECT_EQ(backup->wait(), 0);
  EXPECT_EQ(ctl({"verify", "--all"}).output, "STICK/1: sound\n");
}

TEST_F(CtlOnADesktop, hasABackupMadeWhileTheAgentAsksAQuestion) {
  startDesktopAgent();
  plug(stick("sdb", "STICK", kLater));
  EXPECT_EQ(ctl({"backup", "STICK"}).status, 0);
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1));
}

TEST_F(CtlOnADesktop, tellsWhyTheAgentMadeNoBackup) {
  startDesktopAgent();
  plug(stick("sdb", "STICK"));
  fs::create_directories(storeOf("STICK"));
  auto held = platform::posix::FolderLock::tryLock(storeOf("STICK"));
  ASSERT_TRUE(held && *held);
  const auto backup = ctl({"backup", "STICK"});
  EXPECT_EQ(backup.status, 1);
  EXPECT_EQ(backup.errors,
            "stashwickctl: backup failed - another program is working on the backups of STICK\n");
  held->reset();
  // The agent would only tell of that failure.
  const auto again = ctl({"backup", "STICK"});
  EXPECT_EQ(again.status, 0) << again.errors;
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1));
}

TEST_F(CtlOnADesktop, makesABackupItselfThatTheAgentWouldMakeOtherwise) {
  startDesktopAgent();
  plug(stick("sdb", "STICK"));
  temporary.write("password", "secret\n");
  const auto backup = openCtl({"backup", "STICK", "--encrypt", "--password-file", temporary / "password"});
  backup->expect("Backing up \"STICK\"");
  EXPECT_EQ(backup->wait(), 0) << backup->output();
  EXPECT_EQ(ctl({"verify", "STICK/1"}).status, 4);
  EXPECT_EQ(ctl({"verify", "STICK/1", "--password-file", temporary / "password"}).status, 0);
}

TEST_F(CtlOnADesktop, doesWithoutAnAgentThatIsMute) {
  startDesktopAgent();
  plug(stick("sdb", "STICK"));
  agent->signal(SIGSTOP);
  EXPECT_EQ(volumes(), "STICK at " + placeOf("sdb") + "\n");
}

TEST_F(CtlOnADesktop, tellsOfAnAgentThatEndsMeanwhile) {
  startDesktopAgent();
  plug(stick("sdb", "STICK"));
  for (int file = 0; file < 200; ++file) {
    const auto path = placeOf("sdb") + "/" + std::to_string(file);
    std::ofstream(path) << "begins";
    fs::resize_file(path, 64 << 20);
  }
  const auto backup = openCtl({"backup", "STICK"});
  backup->expect("The agent backs up \"STICK\"");
  monitor->expect("StateChanged");
  agent->signal(SIGKILL);
  EXPECT_EQ(backup->wait(), 1) << backup->output();
  EXPECT_THAT(backup->output(), HasSubstr("the agent has ended, or does not answer"));
}

TEST_F(CtlOnADesktop, doesWithoutBusesThatAreMute) {
  plug(stick("sdb", "STICK"));
  bus.freeze();
  EXPECT_THAT(ctl({"volumes"}).output, HasSubstr("No volume is attached."));
}

}  // namespace
