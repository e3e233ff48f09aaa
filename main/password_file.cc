#include "main/password_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "base/unicode.h"
#include "platform/posix/file_descriptor.h"
#include "platform/posix/system_error.h"

namespace {

constexpr std::size_t kLongestPassword = 4096;  // bytes

bool isPasswordText(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto character = base::decodeUTF8(text, at);
    if (!character.valid || character.scalar == 0) return false;
    at += character.length;
  }
  return true;
}

}  // namespace

base::Result<base::Secret> readPasswordFile(const std::string& path) {
  const std::string doing = "password file \"" + path + "\"";
  const platform::posix::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return platform::posix::errorFromErrno(doing);
  base::Secret password;
  for (char next = 0;;) {
    const ssize_t size = ::read(file.get(), &next, 1);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return platform::posix::errorFromErrno(doing);
    if (size == 0 || next == '\n') break;
    if (password.size() == kLongestPassword) return base::Error{doing + ": its first line is too long"};
    password = std::move(password).append({&next, 1});
  }
  if (password.empty()) return base::Error{doing + ": its first line is empty"};
  if (!isPasswordText(password.reveal())) return base::Error{doing + ": its first line is no UTF-8 text"};
  return password;
}

void leaveNoCore() {
  constexpr rlimit kNone{0, 0};
  ::setrlimit(RLIMIT_CORE, &kNone);
}

void keepMemoryPrivate() {
  leaveNoCore();
  ::prctl(PR_SET_DUMPABLE, 0);
}
