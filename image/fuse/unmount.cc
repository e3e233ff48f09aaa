#include "image/fuse/unmount.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "image/os/file_descriptor.h"
#include "image/os/posix_error.h"

namespace image::fuse {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatienceWithUsers = 2s;
constexpr auto kPatienceWithServer = 5s;
constexpr auto kPatienceWithTool = 10s;
constexpr auto kPause = 50ms;

base::Result<void> unmountAsRoot(const std::string& mountPoint, Detach how) {
  const int flags = UMOUNT_NOFOLLOW | (how == Detach::atOnce ? MNT_DETACH : 0);
  if (::umount2(mountPoint.c_str(), flags) == 0) return {};
  return os::posixError("cannot unmount", mountPoint, errno);
}

struct Pipe {
  os::FileDescriptor reader;
  os::FileDescriptor writer;
};

base::Result<Pipe> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return os::posixError("cannot make", "a pipe", errno);
  return Pipe{os::FileDescriptor(ends[0]), os::FileDescriptor(ends[1])};
}

std::string firstLine(int file) {
  std::array<char, 1024> text{};
  const ssize_t size = ::read(file, text.data(), text.size());
  const std::string all(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  return all.substr(0, all.find('\n'));
}

base::Result<void> unmountAsUser(const std::string& mountPoint, Detach how) {
  auto errors = makePipe();
  if (!errors) return errors.error();
  std::array<std::string, 4> words{"fusermount3", how == Detach::atOnce ? "-uz" : "-u", "--", mountPoint};
  std::array<char*, 5> vector{words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawn_file_actions_adddup2(&files, errors->writer.number(), STDERR_FILENO);
  pid_t tool = 0;
  const int error = ::posix_spawnp(&tool, words[0].c_str(), &files, nullptr, vector.data(), ::environ);
  ::posix_spawn_file_actions_destroy(&files);
  if (error != 0) return os::posixError("cannot run", "fusermount3", error);
  errors->writer = os::FileDescriptor();
  if (!waitForEnd(tool, kPatienceWithTool)) ::kill(tool, SIGKILL);
  int status = 0;
  ::waitpid(tool, &status, 0);
  if (status == 0) return {};
  return base::Error{"cannot unmount " + mountPoint + ": " + firstLine(errors->reader.number())};
}

// Who looks at a new folder on their own accord are soon done with it.
base::Result<void> detachPatiently(const std::string& mountPoint) {
  const auto deadline = Clock::now() + kPatienceWithUsers;
  while (true) {
    auto detached = detach(mountPoint, Detach::whenUnused);
    const bool isBusy = !detached && detached.error().message.find("busy") != std::string::npos;
    if (!isBusy || Clock::now() >= deadline) return detached;
    std::this_thread::sleep_for(kPause);
  }
}

// Ends by itself once its mount is gone; but another mount namespace may still have it.
base::Result<void> endServer(const Server& server, bool force) {
  if (!server.isAlive()) return {};
  if (force) ::kill(server.process, SIGTERM);
  if (waitForEnd(server.process, kPatienceWithUsers)) return {};
  ::kill(server.process, SIGTERM);
  if (waitForEnd(server.process, kPatienceWithServer)) return {};
  if (force) {
    ::kill(server.process, SIGKILL);
    if (waitForEnd(server.process, kPatienceWithUsers)) return {};
  }
  return base::Error{"its server, process " + std::to_string(server.process) + ", does not end"};
}

std::optional<Mount> mountOfImage(const std::string& path) {
  const auto identity = ImageIdentity::of(path);
  if (!identity) return std::nullopt;
  for (auto& mount : mountTable())
    if (mount.server && mount.server->image == *identity) return mount;
  return std::nullopt;
}

std::optional<Mount> mountMeant(const UnmountRequest& request) {
  constexpr std::string_view kVolumes = "/Volumes";
  if (auto mount = mountAt(absolutePlace(request.place))) return mount;
  if (request.place.starts_with(std::string(kVolumes) + "/"))
    return mountAt(absolutePlace(request.volumesFolder + request.place.substr(kVolumes.size())));
  return mountOfImage(request.place);
}

bool isIn(const std::string& path, const std::string& folder) {
  std::error_code none;
  return std::filesystem::path(path).parent_path() == std::filesystem::canonical(folder, none);
}

}  // namespace

base::Result<void> detach(const std::string& mountPoint, Detach how) {
  return ::geteuid() == 0 ? unmountAsRoot(mountPoint, how) : unmountAsUser(mountPoint, how);
}

bool waitForEnd(pid_t process, std::chrono::milliseconds patience) {
  const os::FileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
  if (!handle) return errno == ESRCH;
  const auto deadline = Clock::now() + patience;
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd ended{handle.number(), POLLIN, 0};
    const int ready = ::poll(&ended, 1, static_cast<int>(std::max<std::int64_t>(0, left.count())));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

base::Result<std::string> unmount(const UnmountRequest& request) {
  const auto mount = mountMeant(request);
  if (!mount) return base::Error{"nothing is mounted at " + request.place};
  if (!mount->server) return base::Error{mount->mountPoint + " is no image's mount"};
  const bool isDead = !mount->server->isAlive();
  const auto detached = request.force || isDead ? detach(mount->mountPoint, Detach::atOnce)
                                                : detachPatiently(mount->mountPoint);
  if (!detached) return detached.error();
  if (const auto ended = endServer(*mount->server, request.force); !ended) return ended.error();
  if (isIn(mount->mountPoint, request.volumesFolder)) ::rmdir(mount->mountPoint.c_str());
  return mount->mountPoint;
}

void removeDeadMounts(const std::string& volumesFolder) {
  for (const auto& mount : mountTable()) {
    if (!mount.server || mount.server->isAlive() || !isIn(mount.mountPoint, volumesFolder)) continue;
    if (detach(mount.mountPoint, Detach::atOnce)) ::rmdir(mount.mountPoint.c_str());
  }
}

}  // namespace image::fuse
