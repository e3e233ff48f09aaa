#include "platform/posix/posix_tool_runs.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/posix/system_error.h"

namespace platform::posix {
namespace {

class SecretPipe : public ports::InputPipe {
 public:
  void write(base::Secret bytes) override {
    if (!closed_) bytes_.push_back(std::move(bytes));
  }
  void closeWritingEnd() override { closed_ = true; }

  // Once: the bytes are gone when the run that took them is over.
  std::vector<base::Secret> take() { return std::exchange(bytes_, {}); }

 private:
  std::vector<base::Secret> bytes_;
  bool closed_ = false;
};

constexpr int kToolsProgress = STDERR_FILENO + 1;
constexpr const char* kToolsProgressVariable = "HDIUTIL_PROGRESS=3";

// What posix_spawn() is asked for: default signals, the tool's streams, and no other descriptor but the file
// for its progress, if there is one.
class SpawnRequest {
 public:
  SpawnRequest(const ToolStreams& streams, ports::ToolRun::Capture capture, bool dropsOutput, int progress) {
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawn_file_actions_init(&actions_);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (streams.toolInput() >= 0) connect(streams.toolInput(), STDIN_FILENO);
    if (capture == ports::ToolRun::Capture::bothOutputs)
      connect(streams.toolOutput(), STDOUT_FILENO);
    else if (dropsOutput)
      ::posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    if (capture != ports::ToolRun::Capture::none) connect(streams.toolOutput(), STDERR_FILENO);
    for (char** variable = ::environ; *variable != nullptr; ++variable) environment_.push_back(*variable);
    if (progress >= 0) {
      connect(progress, kToolsProgress);
      environment_.push_back(const_cast<char*>(kToolsProgressVariable));
    }
    environment_.push_back(nullptr);
    ::posix_spawn_file_actions_addclosefrom_np(&actions_, kToolsProgress + (progress >= 0 ? 1 : 0));
  }
  ~SpawnRequest() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnRequest(const SpawnRequest&) = delete;
  SpawnRequest& operator=(const SpawnRequest&) = delete;

  base::Result<pid_t> spawn(const std::string& path, const std::vector<std::string>& arguments) const {
    std::vector<char*> vector{const_cast<char*>(path.c_str())};
    for (const auto& argument : arguments) vector.push_back(const_cast<char*>(argument.c_str()));
    vector.push_back(nullptr);
    pid_t tool = 0;
    const int error =
        ::posix_spawn(&tool, path.c_str(), &actions_, &attributes_, vector.data(), environment_.data());
    if (error != 0) return base::Error{errnoText(error)};
    return tool;
  }

 private:
  void connect(int descriptor, int stream) {
    ::posix_spawn_file_actions_adddup2(&actions_, descriptor, stream);
  }

  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
  std::vector<char*> environment_;
};

// What the tool starts later inherits it. Where the system has no priorities for disks, only the processor's.
void runBehind(pid_t tool) {
  constexpr int kNiceness = 10;
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(tool), kNiceness);
#if defined(SYS_ioprio_set)
  constexpr int kOfProcess = 1;
  constexpr int kLowestOfBestEffort = 2 << 13 | 7;
  ::syscall(SYS_ioprio_set, kOfProcess, tool, kLowestOfBestEffort);
#endif
}

std::string lastLine(std::string_view text) {
  constexpr std::size_t kLongest = 400;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
    text.remove_suffix(1);
  const auto begin = text.find_last_of("\n\r");
  return std::string(text.substr(begin == text.npos ? 0 : begin + 1).substr(0, kLongest));
}

// A password goes in with a terminator behind it, which a tool that shows it would leave out.
bool tells(const std::string& line, const base::Secret& secret) {
  const auto bytes = secret.reveal();
  const auto password = bytes.substr(0, bytes.find_first_of(std::string_view("\0\r\n", 3)));
  return !password.empty() && line.find(password) != line.npos;
}

std::string howItEnded(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  const char* description = ::sigdescr_np(WTERMSIG(status));
  return "ended by signal " + std::to_string(WTERMSIG(status)) +
         (description ? std::string(", ") + description : "");
}

}  // namespace

std::unique_ptr<ports::InputPipe> PosixToolRuns::makePipe() { return std::make_unique<SecretPipe>(); }

std::string PosixToolRuns::run(const ports::ToolRun& run) {
  const bool captures = run.capture != ports::ToolRun::Capture::none;
  std::vector<base::Secret> input;
  if (run.standardInput) input = dynamic_cast<SecretPipe&>(*run.standardInput).take();
  auto streams = ToolStreams::open(run.standardInput ? &input : nullptr, run.capture);
  const auto tool = streams ? launch(run, *streams) : base::Result<pid_t>(streams.error());
  if (!tool) {
    const auto line = run.launchPath + ": launch failed - " + tool.error().message;
    log_.log("[Stashwick] " + line);
    return captures ? line + "\n" : "";
  }
  streams->closeToolEnds();
  streams->exchange(*tool, kGraceAfterExit);
  const int status = reap(*tool);
  auto output = streams->takeOutput();
  if (status != 0) logEnd(run.launchPath, status, output, input);
  if (captures && WIFSIGNALED(status)) output += run.launchPath + ": failed - " + howItEnded(status) + "\n";
  return output;
}

void PosixToolRuns::terminateAll(std::chrono::milliseconds patience) {
  base::MutexLock lock(mutex_);
  terminated_ = true;
  signalAll(SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!running_.empty() && ended_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) {
  }
  signalAll(SIGKILL);
}

// Launching under the lock leaves no tool that terminateAll() does not know.
base::Result<pid_t> PosixToolRuns::launch(const ports::ToolRun& run, const ToolStreams& streams) {
  std::vector<std::string> arguments;
  for (const auto& argument : run.arguments) arguments.push_back(paths_.hostArgument(argument));
  const SpawnRequest request(streams, run.capture, dropsOutput_, progress_.get());
  if (progress_.get() >= 0 && ::ftruncate(progress_.get(), 0) != 0) log_.log(errnoText(errno));
  base::MutexLock lock(mutex_);
  if (terminated_) return base::Error{"the agent is quitting"};
  auto tool = request.spawn(paths_.hostPath(run.launchPath), arguments);
  if (!tool) return tool;
  running_.insert(*tool);
  if (background_) runBehind(*tool);
  return tool;
}

void PosixToolRuns::followProgress() {
#if defined(MFD_CLOEXEC)
  progress_ = FileDescriptor(::memfd_create("progress", MFD_CLOEXEC));
#endif
}

std::optional<double> PosixToolRuns::progress() const {
  std::array<char, 32> text{};
  constexpr std::string_view kBegin = "PERCENT:";
  const auto length = progress_.get() < 0 ? -1 : ::pread(progress_.get(), text.data(), text.size(), 0);
  const std::string_view line(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  double percent = 0;
  if (!line.starts_with(kBegin) || !line.ends_with('\n')) return std::nullopt;
  const auto [end, error] = std::from_chars(line.data() + kBegin.size(), line.data() + line.size(), percent);
  const bool isPercent = error == std::errc() && percent >= 0 && percent <= 100;
  return isPercent ? std::optional(percent / 100) : std::nullopt;
}

void PosixToolRuns::setBackground(bool background) {
  base::MutexLock lock(mutex_);
  background_ = background;
}

// Waits before it reaps, so that the number cannot be another process's while it is in running_.
int PosixToolRuns::reap(pid_t tool) {
  siginfo_t ended{};
  while (::waitid(P_PID, static_cast<id_t>(tool), &ended, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  base::MutexLock lock(mutex_);
  int status = 0;
  ::waitpid(tool, &status, 0);
  running_.erase(tool);
  ended_.notify_all();
  return status;
}

void PosixToolRuns::signalAll(int signal) {
  for (const pid_t tool : running_) ::kill(tool, signal);
}

void PosixToolRuns::logEnd(const std::string& tool, int status, const std::string& output,
                           const std::vector<base::Secret>& input) {
  auto line = "[Stashwick] " + tool + ": " + howItEnded(status);
  const auto printed = lastLine(output);
  const bool secret = std::ranges::any_of(input, [&](const auto& bytes) { return tells(printed, bytes); });
  if (!printed.empty() && !secret) line += ": " + printed;
  log_.log(line);
}

}  // namespace platform::posix
