#include "image/fuse/mount.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "image/fuse/mount_point.h"
#include "image/fuse/mount_table.h"
#include "image/fuse/unmount.h"
#include "image/fuse/volume_server.h"
#include "image/os/file_descriptor.h"
#include "image/os/posix_error.h"

namespace image::fuse {
namespace {

// The end of the pipe on which the server tells, once, what came of the mount.
class Report {
 public:
  explicit Report(os::FileDescriptor pipe) : pipe_(std::move(pipe)) {}

  // False when nobody listens any more.
  bool tell(const base::Result<Mounted>& outcome) {
    if (!outcome) return send("F", outcome.error().message, "");
    return send(outcome->wasMounted ? "A" : "M", outcome->mountPoint, outcome->volumeName);
  }
  static base::Result<Mounted> parse(const std::string& text) {
    const auto end = text.find('\0');
    if (text.empty() || end == text.npos)
      return base::Error{"the server ended before it had mounted anything"};
    const std::string first = text.substr(1, end - 1);
    if (text[0] == 'F') return base::Error{first};
    return Mounted{.mountPoint = first, .volumeName = text.substr(end + 1), .wasMounted = text[0] == 'A'};
  }

 private:
  bool send(const std::string& kind, const std::string& first, const std::string& second) {
    const std::string text = kind + first + '\0' + second;
    // Less than a pipe takes at once.
    const bool isSent = ::write(pipe_.number(), text.data(), text.size()) >= 0;
    pipe_ = os::FileDescriptor();
    return isSent;
  }

  os::FileDescriptor pipe_;
};

std::string readAll(int file) {
  std::string text;
  std::array<char, 1024> piece{};
  while (true) {
    const ssize_t size = ::read(file, piece.data(), piece.size());
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return text;
    text.append(piece.data(), static_cast<std::size_t>(size));
  }
}

// False when it was cancelled before.
bool waitForReport(int file, const std::atomic<bool>* cancelled) {
  constexpr int kInterval = 200;  // milliseconds
  while (cancelled == nullptr || !*cancelled) {
    pollfd report{file, POLLIN, 0};
    const int ready = ::poll(&report, 1, kInterval);
    if (ready > 0 || (ready < 0 && errno != EINTR)) return true;
  }
  return false;
}

// What libfuse and fusermount3 say on standard error, until it goes away.
class CapturedErrors {
 public:
  CapturedErrors()
      : before_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)), file_(::memfd_create("errors", MFD_CLOEXEC)) {
    ::dup2(file_.number(), STDERR_FILENO);
  }
  ~CapturedErrors() { ::dup2(before_.number(), STDERR_FILENO); }
  CapturedErrors(const CapturedErrors&) = delete;
  CapturedErrors& operator=(const CapturedErrors&) = delete;

  // On one line.
  std::string text() const {
    ::lseek(file_.number(), 0, SEEK_SET);
    std::string all = readAll(file_.number());
    while (all.ends_with('\n')) all.pop_back();
    for (char& c : all)
      if (c == '\n') c = ' ';
    return all;
  }

 private:
  os::FileDescriptor before_;
  os::FileDescriptor file_;
};

void silenceStreams() {
  const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nothing < 0) std::abort();
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(nothing, stream);
  if (nothing > STDERR_FILENO) ::close(nothing);
}

void leaveCaller() {
  ::setsid();
  if (::chdir("/") != 0) std::abort();
  silenceStreams();
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) std::signal(signal, SIG_DFL);
  std::signal(SIGPIPE, SIG_IGN);
  ::openlog("hdiutil", LOG_PID, LOG_USER);
}

base::Result<void> checkFuseDevice() {
  if (::access("/dev/fuse", R_OK | W_OK) == 0) return {};
  return os::posixError("cannot open", "/dev/fuse", errno);
}

// From opening the volume to serving it. Declared in the order in which it has to end: the server first.
class MountedVolume {
 public:
  ~MountedVolume() {
    server_.reset();
    if (place_.wasMade) ::rmdir(place_.path.c_str());
  }

  base::Result<Mounted> mount(const MountRequest& request, const OpenVolume& open) {
    if (const auto checked = checkFuseDevice(); !checked) return checked.error();
    const auto identity = ImageIdentity::of(request.image);
    if (!identity) return identity.error();
    auto opened = open();
    if (!opened) return opened.error();
    volume_ = std::move(*opened);
    const auto lock = VolumesFolderLock::take(request.volumesFolder);
    if (!lock) return lock.error();
    removeDeadMounts(request.volumesFolder);
    auto place = findMountPoint(request, volume_->facts().name, *identity);
    if (!place) return place.error();
    place_ = *place;
    if (!place_.wasMounted)
      if (const auto shown = show(*identity); !shown) return shown.error();
    return Mounted{place_.path, volume_->facts().name, place_.wasMounted};
  }

  bool isServing() const { return server_.has_value(); }
  void serve() { server_->serve(); }

 private:
  base::Result<void> show(const ImageIdentity& identity) {
    const CapturedErrors said;
    VolumeServer::blockEndingSignals();
    server_.emplace(*volume_);
    auto mounted = server_->mount(place_.path, Server::thisProcess(identity).text());
    if (mounted) return mounted;
    server_.reset();
    const std::string reason = said.text();
    return base::Error{mounted.error().message + (reason.empty() ? "" : ": " + reason)};
  }

  std::unique_ptr<Volume> volume_;
  std::optional<VolumeServer> server_;
  MountPoint place_;
};

void runServer(const MountRequest& request, const OpenVolume& open, os::FileDescriptor pipe) {
  leaveCaller();
  Report report(std::move(pipe));
  MountedVolume mounted;
  const auto outcome = mounted.mount(request, open);
  if (!report.tell(outcome) || !outcome || !mounted.isServing()) return;
  mounted.serve();
}

}  // namespace

base::Result<Mounted> mountVolume(const MountRequest& request, const OpenVolume& open,
                                  const std::atomic<bool>* cancelled) {
  MountRequest absolute = request;
  absolute.image = std::filesystem::absolute(request.image);
  if (request.mountPoint) absolute.mountPoint = absolutePlace(*request.mountPoint);
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return os::posixError("cannot make", "a pipe", errno);
  const os::FileDescriptor reader(ends[0]);
  os::FileDescriptor writer(ends[1]);
  const pid_t server = ::fork();
  if (server < 0) return os::posixError("cannot start", "a server", errno);
  if (server == 0) {
    ::close(ends[0]);
    runServer(absolute, open, std::move(writer));
    ::_exit(0);
  }
  writer = os::FileDescriptor();
  if (!waitForReport(reader.number(), cancelled)) {
    ::kill(server, SIGTERM);
    ::waitpid(server, nullptr, 0);
    return base::Error{"interrupted"};
  }
  auto outcome = Report::parse(readAll(reader.number()));
  if (!outcome || outcome->wasMounted) ::waitpid(server, nullptr, 0);
  return outcome;
}

}  // namespace image::fuse
