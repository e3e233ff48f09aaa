#include "main/desktop_agent.h"

#include <QApplication>
#include <QLocale>
#include <QTimer>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <poll.h>
#include <utility>

#include "app/agent_app_delegate.h"
#include "base/format.h"
#include "main/locked_tool_runs.h"
#include "main/observed_tool_runs.h"
#include "main/watched_tool_runs.h"
#include "platform/linux/agent_bus.h"
#include "platform/linux/bus_greeting.h"
#include "platform/linux/inhibitor.h"
#include "platform/linux/qt_desktop.h"
#include "platform/linux/secret_service_keychain.h"
#include "platform/linux/udisks_arbitration.h"
#include "platform/posix/directory_bundle.h"
#include "platform/posix/file_user_defaults.h"
#include "platform/posix/icu_dates.h"
#include "platform/posix/posix_archives.h"
#include "platform/posix/posix_files.h"
#include "platform/posix/posix_tool_runs.h"
#include "platform/posix/posix_user_session.h"
#include "platform/posix/stderr_log.h"
#include "platform/posix/xdg_folders.h"

using namespace platform;

namespace {

constexpr const char* kSupportFolder = "/Stashwick 3";
constexpr std::chrono::milliseconds kToolsPatience{3000};
constexpr int kBusPatience = 3000;  // milliseconds
constexpr std::initializer_list<int> kEndingSignals = {SIGINT, SIGTERM, SIGHUP};

// Before the toolkit starts threads of its own, which would die of them.
void blockSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kEndingSignals) sigaddset(&set, signal);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// The toolkit waits without end for a session bus that takes connections and then is mute: it is kept from
// one.
bool leaveMuteSessionBus() {
  const auto greeting = freedesktop::BusGreeting::begin(freedesktop::sessionBusAddress());
  if (!greeting) return false;
  pollfd answer{.fd = greeting->descriptor(), .events = POLLIN, .revents = 0};
  if (::poll(&answer, 1, kBusPatience) > 0) return false;
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
  return true;
}

// What is seen of the agent from outside.
class Presence {
 public:
  Presence(ZQAgentAppDelegate& agent, freedesktop::QtDesktop& desktop, posix::PosixFiles& files,
           const posix::PathMap& paths, const ObservedToolRuns& tools)
      : agent_(agent), desktop_(desktop), files_(files), paths_(paths), tools_(tools) {
    start_.setSingleShot(true);
    start_.callOnTimeout([this] { agent_._backupDevice(std::exchange(wanted_, nullptr)); });
  }

  freedesktop::AgentAnswers answers() {
    return {.volumes = [this] { return volumes(); },
            .backups = [this](const std::string& volume) { return backups(volume); },
            .backUp = [this](const std::string& volume) { return backUp(volume); },
            .current = [this] { return current(); },
            .isBusy = [this] { return isBusy(); },
            .lastFailure = [this] { return tools_.lastFailure().value_or(""); },
            .activate = [this] { desktop_.showMenuWindow(); },
            .quit = [] { QApplication::quit(); }};
  }

 private:
  std::vector<freedesktop::AgentAnswers::Volume> volumes() const {
    std::vector<freedesktop::AgentAnswers::Volume> volumes;
    for (const auto& device : agent_.devices())
      volumes.push_back({.name = device->name(),
                         .identifier = device->UDID().value_or(""),
                         .bytes = static_cast<std::uint64_t>(device->size()),
                         .place = placeOf("/Volumes/" + device->name())});
    return volumes;
  }

  std::string placeOf(const std::string& volume) const {
    return files_.fileExists(volume) ? paths_.hostPath(volume) : "";
  }

  std::vector<freedesktop::AgentAnswers::Backup> backups(const std::string& volume) const {
    std::vector<freedesktop::AgentAnswers::Backup> backups;
    // Asking for a name's folder makes it, so names of nothing are not passed on.
    if (!posix::PathMap::isVolumeName(volume)) return backups;
    for (const auto& backup : agent_.stashwick()->backupsForVolume(volume))
      backups.push_back({.path = backup->path(),
                         .date = backup->backupDate().unix(),
                         .bytes = static_cast<std::uint64_t>(backup->size()),
                         .isEncrypted = backup->encrypted()});
    return backups;
  }

  bool isBusy() const { return wanted_ || agent_.stashwick()->hasOperations(); }

  std::optional<std::string> backUp(const std::string& volume) {
    if (isBusy()) return "A backup is under way.";
    if (!agent_.canRunInBackground()) return "Stashwick is running, which makes backups itself.";
    for (const auto& device : agent_.devices()) {
      if (device->name() != volume) continue;
      wanted_ = device;
      // Once this is answered: a failure may be told by an alert, which lasts until somebody closes it.
      start_.start(0);
      return std::nullopt;
    }
    return "There is no volume \"" + volume + "\".";
  }

  std::string current() const {
    return agent_.stashwick()->hasOperations() ? agent_.stashwick()->currentVolume().value_or("") : "";
  }

  ZQAgentAppDelegate& agent_;
  freedesktop::QtDesktop& desktop_;
  posix::PosixFiles& files_;
  const posix::PathMap& paths_;
  const ObservedToolRuns& tools_;
  std::shared_ptr<ZQRemovableDevice> wanted_;
  QTimer start_;
};

}  // namespace

bool hasDesktop() {
  const auto isSet = [](const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
  };
  return isSet("WAYLAND_DISPLAY") || isSet("DISPLAY");
}

int runDesktopAgent(int& argc, char** argv, const std::string& toolsFolder) {
  blockSignals();
  const bool hasMuteBus = leaveMuteSessionBus();
  QApplication application(argc, argv);
  QApplication::setApplicationName("stashwick-agent");
  QApplication::setDesktopFileName(freedesktop::AgentBus::kName);
  posix::StderrLog log(posix::StderrLog::Syslog::too);
  freedesktop::QtMainQueue queue;
  if (hasMuteBus) log.log("[Stashwick] The session bus does not answer; the agent does without it.");
  queue.handleSignals(kEndingSignals, [](int) { QApplication::quit(); });
  posix::PathMap paths(toolsFolder, posix::unregisteredVolumesFolder());
  posix::PosixFiles files(paths);
  posix::PosixArchives archives(paths, log);
  posix::IcuDates dates;
  const QLocale language(QString::fromStdString(dates.preferredLanguages().front()));
  QApplication::setLayoutDirection(language.textDirection());
  posix::PosixToolRuns hostTools(paths, log);
  hostTools.setBackground(true);
  LockedToolRuns lockedTools(hostTools, paths);
  ObservedToolRuns observedTools(lockedTools);
  posix::FileUserDefaults defaults(log);
  posix::DirectoryBundle bundle(posix::DirectoryBundle::defaultFolder(), dates.preferredLanguages(), log);
  posix::PosixUserSession user;
  freedesktop::SecretServiceKeychain keychain;
  freedesktop::UDisksArbitration disks({.queue = queue, .paths = paths, .dates = dates, .log = log});
  freedesktop::QtDesktop desktop({.queue = queue, .paths = paths, .bundle = bundle, .log = log},
                                 [] { QApplication::quit(); });
  freedesktop::Inhibitor inhibitor;
  std::optional<freedesktop::AgentBus> bus;
  WatchedToolRuns tools(observedTools, [&](const std::optional<std::string>& volume) {
    // Not by the queue: a question that nobody answers would hold that up, and so the machine awake.
    volume
        ? inhibitor.begin(base::stringWithFormat(bundle.localizedString("Backing up \"%@\" ..."), {*volume}))
        : inhibitor.end();
    queue.post([&desktop, &bus, busy = volume.has_value()] {
      desktop.setBusy(busy);
      if (bus) bus->tellStateChanged();
    });
  });
  base::NotificationCenter notifications;
  const ports::Host host{disks,    keychain, desktop, tools, queue, files,        archives,
                         defaults, bundle,   dates,   user,  log,   notifications};

  ZQAgentAppDelegate::initialize(host);
  auto agent = ZQAgentAppDelegate::init(host);
  Presence presence(*agent, desktop, files, paths, observedTools);
  if (bus.emplace(presence.answers()).take() == freedesktop::AgentBus::Place::taken) return 0;
  // There is no main application here that would make it.
  posix::makeFolders(files.applicationSupportDirectory() + kSupportFolder);
  // Before the agent's own observers, which may ask a question: what is asked on the bus is served in those.
  for (const auto changed :
       {ZQRemovableDeviceCenterDeviceMountedNotification, ZQRemovableDeviceCenterDeviceUnmountedNotification})
    notifications.addObserver(changed, {}, [&bus](const base::Notification&) { bus->tellStateChanged(); });
  agent->applicationDidFinishLaunching();
  agent->stashwick()->operationQueue()->addObserver(&bus, [&bus] { bus->tellStateChanged(); });
  const int status = QApplication::exec();

  desktop.close();
  files.stop();
  hostTools.terminateAll(kToolsPatience);
  queue.close();
  agent->stashwick()->operationQueue()->removeObserver(&bus);
  agent->applicationWillTerminate();
  return status;
}
