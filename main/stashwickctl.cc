// The command line, on a machine without a desktop: folders are its USB volumes.

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <unistd.h>

#include "app/agent_app_delegate.h"
#include "cli/command_line.h"
#include "main/asking_terminal.h"
#include "main/attached_volumes.h"
#include "main/password_file.h"
#include "platform/embedded/terminal_desktop.h"
#include "platform/linux/secret_service_keychain.h"
#include "platform/posix/directory_bundle.h"
#include "platform/posix/durable_file.h"
#include "platform/posix/file_user_defaults.h"
#include "platform/posix/folder_lock.h"
#include "platform/posix/icu_dates.h"
#include "platform/posix/posix_archives.h"
#include "platform/posix/posix_files.h"
#include "platform/posix/posix_tool_runs.h"
#include "platform/posix/posix_user_session.h"
#include "platform/posix/stderr_log.h"
#include "platform/posix/xdg_folders.h"

using namespace platform;

namespace {

constexpr std::chrono::milliseconds kToolsPatience{3000};
constexpr std::initializer_list<int> kQuitSignals = {SIGINT, SIGTERM, SIGHUP};
constexpr int kNobodyThere = 1;

// What tools and adapters note for those who look for a cause; what a user has to know, the command says.
class QuietLog : public ports::SystemLog {
 public:
  void log(const std::string& line) override {
    if (wanted_) stderr_.log(line);
  }

 private:
  const bool wanted_ = std::getenv("STASHWICK_LOG") != nullptr;
  posix::StderrLog stderr_;
};

class LockedFolders : public cli::StoreFolders {
 public:
  base::Result<std::unique_ptr<Hold>> hold(const std::string& folder, std::string& holder) override {
    auto lock = posix::FolderLock::tryLock(folder);
    if (!lock) return lock.error();
    if (*lock) return std::unique_ptr<Hold>(std::make_unique<Locked>(**std::move(lock)));
    holder = posix::folderLockHolder(folder);
    return std::unique_ptr<Hold>();
  }
  base::Result<void> removeFile(const std::string& path) override {
    const auto removed = posix::removeFile(path);
    if (removed) return removed;
    return base::Error{"removing \"" + path + "\": " + removed.error().message};
  }

 private:
  struct Locked : Hold {
    explicit Locked(posix::FolderLock taken) : lock(std::move(taken)) {}
    posix::FolderLock lock;
  };
};

// The agent's own list, by way of an agent that is never launched.
class AgentList : public cli::AutomaticBackups {
 public:
  explicit AgentList(const ports::Host& host) : agent_(ZQAgentAppDelegate::init(host)) {}
  std::int32_t flag(const ZQRemovableDevice& volume) override {
    return agent_->_backupStateForDevice(volume);
  }
  void setFlag(const ZQRemovableDevice& volume, std::int32_t flag) override {
    agent_->_addDeviceToAutomaticBackups(volume, flag);
  }

 private:
  const std::shared_ptr<ZQAgentAppDelegate> agent_;
};

cli::Streams streams() {
  const char* noColour = std::getenv("NO_COLOR");
  return {.out = std::cout,
          .error = std::cerr,
          .outIsTerminal = ::isatty(STDOUT_FILENO) == 1,
          .errorIsTerminal = ::isatty(STDERR_FILENO) == 1,
          .mayColour = !noColour || *noColour == '\0'};
}

// A tool that Ctrl-C reached as well may have ended before the signal was looked at here.
bool isSignalPending() {
  sigset_t pending;
  ::sigpending(&pending);
  return std::ranges::any_of(kQuitSignals, [&](int signal) { return ::sigismember(&pending, signal) == 1; });
}

int runCommand(const std::vector<std::string>& arguments) {
  QuietLog log;
  posix::MainLoop loop;
  bool isInterrupted = false;
  posix::PathMap paths(posix::PathMap::defaultToolsFolder(), posix::unregisteredVolumesFolder());
  posix::PathMap diskPaths(posix::PathMap::defaultToolsFolder(), posix::unregisteredVolumesFolder());
  posix::PosixFiles files(paths);
  posix::PosixFiles walkedFiles(paths);
  posix::PosixToolRuns tools(paths, log);
  posix::PosixToolRuns lastTools(paths, log);
  tools.followProgress();
  tools.dropOutput();
  loop.handleSignals(kQuitSignals, [&](int) {
    isInterrupted = true;
    walkedFiles.stop();
    tools.terminateAll(kToolsPatience);
    loop.stop();
  });
  posix::PosixArchives archives(paths, log);
  posix::IcuDates dates;
  embedded::EmbeddedDisks disks({loop, diskPaths, walkedFiles, archives, dates, log});
  posix::FileUserDefaults defaults(log);
  posix::DirectoryBundle bundle(posix::DirectoryBundle::defaultFolder(), dates.preferredLanguages(), log);
  posix::PosixUserSession user;
  freedesktop::SecretServiceKeychain keychain;
  embedded::TerminalDesktop desktop(loop, log, {.automaticAnswer = kNobodyThere}, [&loop] { loop.stop(); });
  base::NotificationCenter notifications;
  const ports::Host host{disks,    keychain, desktop, tools, loop, files,        archives,
                         defaults, bundle,   dates,   user,  log,  notifications};

  AskingTerminal terminal(loop);
  AttachedVolumes volumes(host, loop, paths, diskPaths, disks);
  LockedFolders folders;
  AgentList automatic(host);
  const auto exit =
      cli::run(arguments, {.host = host,
                           .volumes = volumes,
                           .terminal = terminal,
                           .folders = folders,
                           .automatic = automatic,
                           .walkedFiles = walkedFiles,
                           .lastTools = lastTools,
                           .serveUntil = [&loop](const auto& done) { return loop.runUntil(done); },
                           .toolProgress = [&tools] { return tools.progress(); },
                           .streams = streams()});
  std::cout.flush();
  const auto interrupted = static_cast<int>(cli::Exit::interrupted);
  if (exit != cli::Exit::done && (isInterrupted || isSignalPending())) return interrupted;
  return std::cout ? static_cast<int>(exit) : static_cast<int>(cli::Exit::failed);
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  std::signal(SIGPIPE, SIG_IGN);
  keepMemoryPrivate();
  return runCommand({argv + 1, argv + argc});
}
