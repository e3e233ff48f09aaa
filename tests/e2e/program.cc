#include "tests/e2e/program.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using platform::posix::FileDescriptor;

constexpr int kPatience = 60000;  // milliseconds

std::vector<std::string> environmentWith(std::map<std::string, std::string> variables) {
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const auto equals = text.find('=');
    variables.try_emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  std::vector<std::string> environment;
  for (const auto& [name, value] : variables) {
    if (!value.empty()) environment.push_back(name + "=" + value);
  }
  return environment;
}

std::vector<char*> pointersInto(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::array<FileDescriptor, 2> pipeEnds() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

// False at the end.
bool readInto(std::string& text, FileDescriptor& from) {
  std::array<char, 4096> buffer;
  const ssize_t size = ::read(from.get(), buffer.data(), buffer.size());
  if (size > 0) text.append(buffer.data(), static_cast<std::size_t>(size));
  if (size <= 0) from.reset();
  return size > 0;
}

}  // namespace

Program::Program(const std::vector<std::string>& commandLine,
                 const std::map<std::string, std::string>& variables, const std::string& workingFolder,
                 Screen screen) {
  auto arguments = commandLine;
  auto environment = environmentWith(variables);
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t files;
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addchdir_np(&files, workingFolder.c_str());
  std::array<FileDescriptor, 2> out;
  std::array<FileDescriptor, 2> err;
  if (screen == Screen::terminal) {
    input_ = FileDescriptor(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(::grantpt(input_.get()), 0);
    EXPECT_EQ(::unlockpt(input_.get()), 0);
    const winsize size{24, 100, 0, 0};
    ::ioctl(input_.get(), TIOCSWINSZ, &size);
    // The first terminal that the leader of a session opens is the one that Ctrl-C comes from.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, ::ptsname(input_.get()), O_RDWR, 0);
    posix_spawn_file_actions_adddup2(&files, STDIN_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, STDIN_FILENO, STDERR_FILENO);
    outputEnd_ = FileDescriptor(::fcntl(input_.get(), F_DUPFD_CLOEXEC, 0));
  } else {
    out = pipeEnds();
    err = pipeEnds();
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, out[1].get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, err[1].get(), STDERR_FILENO);
    outputEnd_ = std::move(out[0]);
    errorsEnd_ = std::move(err[0]);
  }
  const int error = ::posix_spawnp(&process_, arguments.front().c_str(), &files, &attributes,
                                   pointersInto(arguments).data(), pointersInto(environment).data());
  EXPECT_EQ(error, 0) << arguments.front();
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&attributes);
}

Program::~Program() {
  if (process_ <= 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

// False when nothing more comes, or not in time.
bool Program::readMore(int milliseconds) {
  std::array<pollfd, 2> ends{{{outputEnd_.get(), POLLIN, 0}, {errorsEnd_.get(), POLLIN, 0}}};
  if (!outputEnd_ && !errorsEnd_) return false;
  if (::poll(ends.data(), ends.size(), milliseconds) <= 0) return false;
  if (ends[0].revents != 0) readInto(output_, outputEnd_);
  if (ends[1].revents != 0) readInto(errors_, errorsEnd_);
  return true;
}

void Program::expect(const std::string& text) {
  for (;;) {
    if (const auto at = output_.find(text, expected_); at != output_.npos) {
      expected_ = at + text.size();
      return;
    }
    if (!readMore(kPatience)) break;
  }
  FAIL() << "\"" << text << "\" does not come after the first " << expected_ << " bytes of:\n"
         << output_ << errors_;
}

void Program::type(const std::string& keys) {
  ASSERT_EQ(::write(input_.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

void Program::signal(int number) const { ASSERT_EQ(::kill(process_, number), 0); }

int Program::wait() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatience);
  while (readMore(kPatience)) {
    if (std::chrono::steady_clock::now() > deadline) break;
  }
  if (outputEnd_ || errorsEnd_) {
    ADD_FAILURE() << "it does not end:\n" << output_ << errors_;
    ::kill(process_, SIGKILL);
  }
  int status = 0;
  ::waitpid(process_, &status, 0);
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
