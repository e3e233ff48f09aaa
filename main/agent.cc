// The agent on a machine without a desktop: folders are its USB volumes, the terminal is its desktop.

#include <csignal>
#include <cstdio>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "app/agent_app_delegate.h"
#include "main/agent_options.h"
#include "main/desktop_agent.h"
#include "main/locked_tool_runs.h"
#include "main/observed_tool_runs.h"
#include "main/password_file.h"
#include "main/wanted_backups.h"
#include "platform/embedded/embedded_disks.h"
#include "platform/embedded/memory_keychain.h"
#include "platform/embedded/terminal_desktop.h"
#include "platform/embedded/volume_files.h"
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
constexpr const char* kKeychainService = "Stashwick 3";
constexpr std::chrono::milliseconds kToolsPatience{3000};
constexpr int kLater = 1;

// What is opened later must not become one of the three streams by chance.
void openMissingStreams() {
  for (int stream = 0; stream <= STDERR_FILENO;) {
    stream = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (stream < 0) return;
    if (stream > STDERR_FILENO) ::close(stream);
  }
}

embedded::TerminalDesktop::Options desktopOptions(const AgentOptions& options) {
  const bool isInteractive = !options.headless && ::isatty(STDIN_FILENO) && ::isatty(STDOUT_FILENO);
  return {.isInteractive = isInteractive,
          .automaticAnswer = options.answer || isInteractive ? options.answer : kLater,
          .automaticallySuppresses = options.remember};
}

// The folders that arrive, one after the other where the agent is to leave when it has dealt with all.
class Arrivals {
 public:
  Arrivals(const AgentOptions& options, posix::MainLoop& loop, embedded::EmbeddedDisks& disks,
           WantedBackups& wanted)
      : leaves_(options.once || !::isatty(STDIN_FILENO)),
        waitsForVolumes_(options.volumesFolder && options.folders.empty()),
        waiting_(options.folders.begin(), options.folders.end()),
        loop_(loop),
        disks_(disks),
        wanted_(wanted) {}

  void begin() {
    if (leaves_ && waitsForVolumes_) std::puts("Waiting for a volume to arrive.");
    std::fflush(stdout);
    if (leaves_) return wanted_.checkLater();
    while (!waiting_.empty()) attachNext();
  }

  // Nothing that was wanted is left to do.
  void settled() {
    if (!leaves_ || attaching_ > 0) return;
    if (!waiting_.empty()) return attachNext();
    if (!waitsForVolumes_ || wanted_.arrivals() > 0) loop_.stop();
  }

  int exitStatus() const {
    return leaves_ && (!waiting_.empty() || attaching_ > 0 || failed_ || !wanted_.allMade());
  }

 private:
  // A backup is named by the second of its start: the next one of the same volume waits for the next second.
  void attachNext() {
    const std::string folder = waiting_.front();
    waiting_.pop_front();
    ++attaching_;
    const double wait = wanted_.secondsToNextBackup(std::filesystem::weakly_canonical(folder).filename());
    wait > 0 ? loop_.postAfter(wait, [this, folder] { attach(folder); }) : attach(folder);
  }

  void attach(const std::string& folder) {
    const auto ended = [this, folder](bool arrived) {
      --attaching_;
      if (!arrived) complain(folder + ": the folder is gone");
      wanted_.checkLater();
    };
    const auto attached = disks_.attach(folder, ended);
    if (attached) return;
    --attaching_;
    complain(attached.error().message);
    wanted_.checkLater();
  }

  void complain(const std::string& message) {
    failed_ = true;
    std::fprintf(stderr, "stashwick-agent: %s\n", message.c_str());
  }

  const bool leaves_;
  const bool waitsForVolumes_;
  std::deque<std::string> waiting_;
  int attaching_ = 0;
  bool failed_ = false;
  posix::MainLoop& loop_;
  embedded::EmbeddedDisks& disks_;
  WantedBackups& wanted_;
};

int fail(const base::Error& error) {
  std::fprintf(stderr, "stashwick-agent: %s\n", error.message.c_str());
  return 2;
}

int runAgent(const AgentOptions& options, const base::Secret& password) {
  posix::StderrLog log;
  posix::MainLoop loop;
  loop.handleSignals({SIGINT, SIGTERM, SIGHUP}, [&loop](int) { loop.stop(); });
  posix::PathMap paths(posix::PathMap::defaultToolsFolder(), posix::unregisteredVolumesFolder());
  posix::PosixFiles hostFiles(paths);
  posix::PosixArchives archives(paths, log);
  posix::IcuDates dates;
  embedded::EmbeddedDisks disks({loop, paths, hostFiles, archives, dates, log});
  embedded::VolumeFiles files(hostFiles, [&disks](auto path) { return disks.isPlainFolder(path); });
  posix::PosixToolRuns hostTools(paths, log);
  LockedToolRuns lockedTools(hostTools, paths);
  ObservedToolRuns tools(lockedTools);
  posix::FileUserDefaults defaults(log);
  posix::DirectoryBundle bundle(posix::DirectoryBundle::defaultFolder(), dates.preferredLanguages(), log);
  posix::PosixUserSession user;
  embedded::MemoryKeychain keychain(dates);
  embedded::TerminalDesktop desktop(loop, log, desktopOptions(options), [&loop] { loop.stop(); });
  base::NotificationCenter notifications;
  const ports::Host host{disks,    keychain, desktop, tools, loop, files,        archives,
                         defaults, bundle,   dates,   user,  log,  notifications};

  if (options.volumesFolder) {
    const auto watched = disks.watchVolumesFolder(*options.volumesFolder);
    if (!watched) return fail(watched.error());
  }
  if (!password.empty()) {
    keychain.secItemAdd({.service = kKeychainService, .account = user.fullUserName()}, password);
  }
  // There is no main application here that would make it.
  const std::string support = files.applicationSupportDirectory() + kSupportFolder;
  if (!posix::makeFolders(support)) {
    std::error_code reason;
    std::filesystem::create_directories(support, reason);
    log.log("[Stashwick] \"" + support + "\" cannot be made: " + reason.message());
  }

  ZQAgentAppDelegate::initialize(host);
  auto agent = ZQAgentAppDelegate::init(host);
  WantedBackups wanted(host, desktop, tools);
  Arrivals arrivals(options, loop, disks, wanted);
  agent->applicationDidFinishLaunching();
  if (!password.empty() && !defaults.stringForKey("ZQStashwickBackupEncryption")) {
    log.log(
        "[Stashwick] A password was given, but the setting ZQStashwickBackupEncryption is not set: "
        "backups are not encrypted.");
  }
  wanted.follow(*agent, [&arrivals] { arrivals.settled(); });
  arrivals.begin();
  loop.run();

  hostFiles.stop();
  hostTools.terminateAll(kToolsPatience);
  agent->applicationWillTerminate();
  return arrivals.exitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  openMissingStreams();
  std::signal(SIGPIPE, SIG_IGN);
  leaveNoCore();
  auto [options, exitStatus] = AgentCommandLine::parse(argc, argv);
  if (exitStatus) return *exitStatus;
  for (const auto& folder : options.folders) {
    const auto checked = embedded::EmbeddedDisks::checkFolder(folder);
    if (!checked) return fail(checked.error());
  }
  if (hasDesktop() && options.isForDesktop())
    return runDesktopAgent(argc, argv, posix::PathMap::defaultToolsFolder());
  base::Secret password;
  if (options.passwordFile) {
    keepMemoryPrivate();
    auto read = readPasswordFile(*options.passwordFile);
    if (!read) return fail(read.error());
    password = std::move(*read);
  }
  return runAgent(options, password);
}
