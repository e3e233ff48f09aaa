#include <chrono>
#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ostream>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/tools/faults/faulty_run.h"

namespace {

using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

// How many instants are tried; scripts/prove_kills asks for more.
int instants() {
  const char* const count = std::getenv("KILLED_RUNS");
  return count == nullptr ? 20 : std::atoi(count);
}

struct Setting {
  Naming naming;
  std::string password;
};
std::ostream& operator<<(std::ostream& out, const Setting& setting) {
  return out << setting.naming << (setting.password.empty() ? "" : ", encrypted");
}

class Kills : public testing::TestWithParam<Setting> {
 protected:
  // Whatever a killed run left: no image or a whole one, and after the next run nothing else.
  void expectNothingHalf(const std::string& when) {
    if (std::filesystem::exists(runs.image())) {
      EXPECT_EQ(runs.faultOfImage(), "") << when;
      runs.removeImage();
    }
    const auto next = runs.createPlain();
    EXPECT_EQ(next.status, 0) << when << ": " << next.output;
    EXPECT_THAT(runs.names(), ElementsAre("out.dmg")) << when;
    runs.removeImage();
  }

  FaultyRuns runs{GetParam().naming, GetParam().password};
};

TEST_P(Kills, beforeAndAfterEachCallThatChangesTheDiskLeaveNothingHalf) {
  for (const char* kind : {"kill-before", "kill-after"}) {
    int killed = 0;
    for (Fault fault{.call = "writing", .kind = kind};; ++fault.at) {
      const auto run = runs.create(fault);
      if (run.status == 0) break;
      EXPECT_EQ(run.status, 128 + SIGKILL) << run.output;
      ++killed;
      expectNothingHalf(std::string(kind) + " call " + std::to_string(fault.at));
    }
    EXPECT_GT(killed, 5);
    runs.removeImage();
  }
}

// Runs the line in a process of its own, and kills that after a while.
void runAndKill(const std::string& line, std::chrono::microseconds after) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::execl("/bin/sh", "sh", "-c", ("exec >/dev/null; " + line).c_str(), nullptr);
    ::_exit(127);
  }
  std::this_thread::sleep_for(after);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

TEST_P(Kills, atAnyInstantLeaveNothingHalf) {
  const auto begin = Clock::now();
  ASSERT_EQ(runs.create().status, 0);
  const auto whole = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
  runs.removeImage();
  std::mt19937 random(std::random_device{}());
  // Deriving a key takes its time.
  const int count = GetParam().password.empty() ? instants() : instants() / 5;
  for (int i = 0; i < count; ++i) {
    const std::chrono::microseconds after(random() % (whole.count() + 1));
    runAndKill(runs.commandLine({}), after);
    expectNothingHalf("after " + std::to_string(after.count()) + " microseconds");
  }
}

INSTANTIATE_TEST_SUITE_P(Namings, Kills,
                         testing::Values(Setting{Naming::nameless, ""}, Setting{Naming::hidden, ""},
                                         Setting{Naming::nameless, "secret"}));

}  // namespace
