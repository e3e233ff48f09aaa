#include "main/password_prompt.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <termios.h>
#include <unistd.h>

#include "image/os/file_descriptor.h"
#include "image/os/posix_error.h"

namespace {

// The terminal shows nothing of what is typed while it lives.
class EchoOff {
 public:
  explicit EchoOff(int terminal) : terminal_(terminal) {
    if (::tcgetattr(terminal_, &before_) != 0) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    isOff_ = ::tcsetattr(terminal_, TCSAFLUSH, &silent) == 0;
  }
  ~EchoOff() {
    if (isOff_) ::tcsetattr(terminal_, TCSAFLUSH, &before_);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

  bool isOff() const { return isOff_; }

 private:
  int terminal_;
  termios before_{};
  bool isOff_ = false;
};

void write(int terminal, std::string_view text) {
  if (::write(terminal, text.data(), text.size()) < 0) return;
}

base::Result<base::Secret> readLine(int terminal, const std::atomic<bool>& interrupted) {
  base::Secret line;
  char c = 0;
  while (true) {
    const ssize_t got = ::read(terminal, &c, 1);
    if (got < 0 && errno == EINTR && !interrupted) continue;
    if (interrupted) return base::Error{"interrupted"};
    if (got < 0) return image::os::posixError("cannot read the password from", "the terminal", errno);
    if (got == 0 || c == '\n') break;
    line = std::move(line).append({&c, 1});
  }
  base::wipeMemory(&c, 1);
  return line;
}

}  // namespace

base::Result<base::Secret> promptForPassword(const std::string& question,
                                             const std::atomic<bool>& interrupted) {
  const image::os::FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) return image::os::posixError("cannot open", "/dev/tty", errno);
  const EchoOff silence(terminal.number());
  if (!silence.isOff()) return image::os::posixError("cannot silence", "the terminal", errno);
  write(terminal.number(), question);
  auto line = readLine(terminal.number(), interrupted);
  write(terminal.number(), "\n");
  return line;
}
