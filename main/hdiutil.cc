#include "tools/hdiutil.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sys/prctl.h>
#include <unistd.h>

#include "image/fuse/mount.h"
#include "image/fuse/unmount.h"
#include "image/os/host.h"
#include "image/verify.h"
#include "main/password_prompt.h"
#include "platform/posix/xdg_folders.h"

namespace {

std::atomic<bool> interrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free);

void interrupt(int) { interrupted = true; }

void watchSignals() {
  struct sigaction action {};
  action.sa_handler = interrupt;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGHUP, &action, nullptr);
  // A write beyond a limit, or to a reader who left, is an error like any other.
  action.sa_handler = SIG_IGN;
  ::sigaction(SIGXFSZ, &action, nullptr);
  ::sigaction(SIGPIPE, &action, nullptr);
}

base::Result<base::Secret> readPassword() {
  if (::isatty(STDIN_FILENO) == 0) return image::os::readPassword(STDIN_FILENO);
  return promptForPassword("Password of the image: ", interrupted);
}

base::Result<std::unique_ptr<image::Volume>> openVolume(const image::MountRequest& request,
                                                        const std::optional<base::Secret>& password) {
  auto opened = image::OpenedImage::open(request.image, password ? &*password : nullptr);
  if (!opened) return opened.error();
  if (request.verifiesFirst)
    if (const auto checked = image::checkImage(**opened, 0, &interrupted); !checked) return checked.error();
  return image::Volume::open(std::move(*opened));
}

base::Result<image::Mounted> mount(image::MountRequest request, std::optional<base::Secret> password) {
  request.volumesFolder = platform::posix::unregisteredVolumesFolder();
  // Where it cannot be made, mounting says why.
  platform::posix::makeFolders(request.volumesFolder);
  request.image = std::filesystem::absolute(request.image);
  // The process that is left behind does not keep the password.
  const auto open = [&] {
    auto volume = openVolume(request, password);
    password.reset();
    return volume;
  };
  return image::fuse::mountVolume(request, open, &interrupted);
}

base::Result<std::string> unmount(image::UnmountRequest request) {
  request.volumesFolder = platform::posix::unregisteredVolumesFolder();
  return image::fuse::unmount(request);
}

// Whoever runs this tool may follow its progress in a file that it hands on as this descriptor, with the
// variable set: "PERCENT:041.250000" stands there.
constexpr int kProgressDescriptor = STDERR_FILENO + 1;
constexpr const char* kProgressVariable = "HDIUTIL_PROGRESS";

void tellProgress(double fraction) {
  std::array<char, 32> text{};
  const int length = std::snprintf(text.data(), text.size(), "PERCENT:%010.6f\n", 100 * fraction);
  // Nobody is helped by a backup that fails because it cannot be watched.
  [[maybe_unused]] const auto written =
      ::pwrite(kProgressDescriptor, text.data(), static_cast<std::size_t>(length), 0);
}

// A server is left behind: it must not hold what it was never meant to have, as the lock of a script.
void closeInheritedFiles(int first) { ::close_range(static_cast<unsigned>(first), ~0U, 0); }

}  // namespace

int main(int count, char** arguments) {
  // A crash must not leave a password or key in a core file.
  ::prctl(PR_SET_DUMPABLE, 0);
  const bool isFollowed = std::getenv(kProgressVariable) != nullptr;
  closeInheritedFiles(kProgressDescriptor + (isFollowed ? 1 : 0));
  watchSignals();
  return tools::hdiutil({arguments + 1, arguments + count},
                        {.out = std::cout,
                         .error = std::cerr,
                         .readPassword = readPassword,
                         .errorIsTerminal = ::isatty(2) == 1,
                         .tellProgress = isFollowed ? std::function(tellProgress) : nullptr,
                         .cancelled = interrupted,
                         .mount = mount,
                         .unmount = unmount});
}
