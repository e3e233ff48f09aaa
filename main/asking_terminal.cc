#include "main/asking_terminal.h"

#include <cerrno>
#include <iostream>
#include <termios.h>
#include <unistd.h>

#include "base/unicode.h"
#include "main/password_file.h"

namespace {

constexpr std::size_t kLongestLine = 4096;  // bytes

// The terminal shows nothing of what is typed but the end of the line while this lives.
class Hidden {
 public:
  Hidden() : isTerminal_(::tcgetattr(STDIN_FILENO, &before_) == 0) {
    termios hidden = before_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    hidden.c_lflag |= ECHONL;
    if (isTerminal_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
  }
  ~Hidden() {
    if (isTerminal_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
  }
  Hidden(const Hidden&) = delete;
  Hidden& operator=(const Hidden&) = delete;

 private:
  termios before_{};
  const bool isTerminal_;
};

}  // namespace

bool AskingTerminal::isAttended() const {
  return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
}

std::optional<std::string> AskingTerminal::ask(const std::string& question) {
  std::cerr << question << std::flush;
  const auto line = readLine();
  return line ? std::optional(std::string(line->reveal())) : std::nullopt;
}

std::optional<base::Secret> AskingTerminal::askPassword(const std::string& question) {
  const Hidden hidden;
  std::cerr << question << std::flush;
  return readLine();
}

base::Result<base::Secret> AskingTerminal::readPassword() {
  auto line = readLine();
  if (!line || line->empty()) return base::Error{"standard input: there is no password on its first line"};
  const auto text = line->reveal();
  if (text.size() >= kLongestLine || text.find('\0') != text.npos || !base::isValidUTF8(text))
    return base::Error{"standard input: its first line is too long for a password, or no UTF-8 text"};
  return *std::move(line);
}

base::Result<base::Secret> AskingTerminal::readPasswordFile(const std::string& path) {
  return ::readPasswordFile(path);
}

std::optional<base::Secret> AskingTerminal::readLine() {
  base::Secret line;
  bool isOver = false;
  bool isWhole = false;
  const auto readNext = [&] {
    char next = 0;
    const ssize_t size = ::read(STDIN_FILENO, &next, 1);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) return;
    isWhole = size == 1 && next == '\n';
    isOver = size != 1 || isWhole || line.size() == kLongestLine;
    if (!isOver) line = std::move(line).append({&next, 1});
  };
  const auto watch = loop_.watch(STDIN_FILENO, readNext);
  if (!loop_.runUntil([&] { return isOver; })) return std::nullopt;
  return isWhole || !line.empty() ? std::optional(std::move(line)) : std::nullopt;
}
