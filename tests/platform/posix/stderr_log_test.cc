#include "platform/posix/stderr_log.h"

#include <array>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/posix/file_descriptor.h"

using platform::posix::FileDescriptor;
using platform::posix::StderrLog;

namespace {

TEST(StderrLog, writesEachTextAsALine) {
  testing::internal::CaptureStderr();
  StderrLog log;
  log.log("[Stashwick] one");
  log.log("[DEBUG] (\n\tcreate\n)");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[Stashwick] one\n[DEBUG] (\n\tcreate\n)\n");
}

TEST(StderrLog, showsNoControlCharacters) {
  testing::internal::CaptureStderr();
  StderrLog().log("a\x1B[2Jb\rc\x7F");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "a?[2Jb?c?\n");
}

TEST(StderrLog, keepsTheLinesOfThreadsApart) {
  testing::internal::CaptureStderr();
  StderrLog log;
  {
    std::vector<std::jthread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
      threads.emplace_back([&log, line = std::string(200, letter)] {
        for (int i = 0; i < 50; ++i) log.log(line);
      });
    }
  }
  const auto text = testing::internal::GetCapturedStderr();
  ASSERT_EQ(text.size(), 4u * 50 * 201);
  for (std::size_t at = 0; at < text.size(); at += 201) {
    EXPECT_EQ(text.substr(at, 201), std::string(200, text[at]) + "\n");
  }
}

TEST(StderrLog, survivesAReaderThatHasGone) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  ::close(ends[0]);
  const FileDescriptor saved(::dup(STDERR_FILENO));
  ASSERT_EQ(::dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
  ::close(ends[1]);
  StderrLog().log("nobody reads this");
  ::dup2(saved.get(), STDERR_FILENO);
  sigset_t pending;
  ASSERT_EQ(::sigpending(&pending), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

}  // namespace
