#include "image/os/program.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include "image/os/posix_error.h"

namespace image::os {
namespace {

constexpr std::size_t kMostWords = 4096;

base::Result<FileDescriptor> memoryFileOf(const std::string& text) {
  auto file = memoryFile(0);
  if (!file) return file;
  if (::pwrite(file->number(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
    return posixError("cannot write to", "a file in memory", errno);
  return file;
}

// The file's beginning as one line.
std::string wordsIn(const FileDescriptor& file) {
  std::string text(kMostWords, '\0');
  text.resize(
      static_cast<std::size_t>(std::max<ssize_t>(0, ::pread(file.number(), text.data(), text.size(), 0))));
  for (char& character : text)
    if (static_cast<unsigned char>(character) < ' ') character = ' ';
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

int spawn(const std::vector<std::string>& words, const std::array<int, 3>& standard, int shared,
          pid_t& child) {
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  for (int i = 0; i < 3; ++i)
    ::posix_spawn_file_actions_adddup2(&actions, standard.at(static_cast<std::size_t>(i)), i);
  // Onto itself: stays open in the child.
  ::posix_spawn_file_actions_adddup2(&actions, shared, shared);
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  std::array<char*, 3> environment{const_cast<char*>("PATH=/usr/sbin:/usr/bin:/sbin:/bin"),
                                   const_cast<char*>("LC_ALL=C"), nullptr};
  const int code =
      ::posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environment.data());
  ::posix_spawn_file_actions_destroy(&actions);
  return code;
}

}  // namespace

base::Result<FileDescriptor> memoryFile(std::uint64_t bytes) {
  FileDescriptor file(::memfd_create("disk", MFD_CLOEXEC));
  if (!file || ::ftruncate(file.number(), static_cast<off_t>(bytes)) != 0)
    return posixError("cannot make", "a file in memory", errno);
  return file;
}

std::string pathOf(const FileDescriptor& file) { return "/proc/self/fd/" + std::to_string(file.number()); }

base::Result<void> runProgram(const std::vector<std::string>& words, const std::string& input,
                              const FileDescriptor& file) {
  const auto in = memoryFileOf(input);
  const auto out = memoryFileOf("");
  if (!in) return in.error();
  if (!out) return out.error();
  pid_t child = 0;
  if (const int code = spawn(words, {in->number(), out->number(), out->number()}, file.number(), child);
      code != 0)
    return posixError("cannot run", words[0], code);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0)
    if (errno != EINTR) return posixError("cannot wait for", words[0], errno);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
  return base::Error{words[0] + ": " + wordsIn(*out)};
}

}  // namespace image::os
