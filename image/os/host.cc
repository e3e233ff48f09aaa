#include "image/os/host.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <sched.h>
#include <string_view>
#include <sys/random.h>
#include <unistd.h>

#include "image/os/posix_error.h"

namespace image::os {

// The kernel never fails to give bytes once it has started; going on without them would write guessable keys.
void fillRandom(std::span<std::byte> into) {
  while (!into.empty()) {
    const ssize_t got = ::getrandom(into.data(), into.size(), 0);
    if (got < 0 && errno != EINTR) std::abort();
    if (got > 0) into = into.subspan(static_cast<std::size_t>(got));
  }
}

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

unsigned processors() {
  cpu_set_t set;
  if (::sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  return static_cast<unsigned>(std::max(1, CPU_COUNT(&set)));
}

base::Result<base::Secret> readPassword(int file) {
  constexpr std::size_t kMost = 1 << 20;
  base::Secret password;
  std::array<char, 256> piece{};
  while (true) {
    const ssize_t got = ::read(file, piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return posixError("cannot read the password from", "standard input", errno);
    const std::string_view bytes(piece.data(), static_cast<std::size_t>(got));
    const auto end = bytes.find('\0');
    password = std::move(password).append(bytes.substr(0, end));
    base::wipeMemory(piece.data(), piece.size());
    if (got == 0 || end != std::string_view::npos) return password;
    if (password.size() > kMost) return base::Error{"the password on standard input has no end"};
  }
}

}  // namespace image::os
