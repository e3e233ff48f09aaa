#include "bench/image/measured_run.h"

#include <chrono>
#include <fcntl.h>
#include <iostream>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {
namespace {

std::optional<pid_t> spawn(const Command& command) {
  std::vector<char*> arguments;
  for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = -1;
  const bool started =
      ::posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ) == 0;
  ::posix_spawn_file_actions_destroy(&actions);
  return started ? std::optional(child) : std::nullopt;
}

}  // namespace

std::optional<Measured> measure(const Command& command) {
  const auto begin = std::chrono::steady_clock::now();
  const auto child = spawn(command);
  int status = -1;
  rusage usage{};
  const bool ended = child && ::wait4(*child, &status, 0, &usage) == *child;
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
  if (ended && WIFEXITED(status) && WEXITSTATUS(status) == 0)
    return Measured{taken.count(), static_cast<double>(usage.ru_maxrss) * 1024 / 1e6};
  std::cerr << "failed:";
  for (const auto& argument : command) std::cerr << " " << argument;
  std::cerr << "\n";
  return std::nullopt;
}

}  // namespace bench
