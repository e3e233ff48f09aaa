#include "platform/posix/posix_tool_runs.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"

using platform::posix::PathMap;
using platform::posix::PosixToolRuns;
using ports::ToolRun;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Capture = ToolRun::Capture;

class PosixToolRunsTest : public testing::Test {
 protected:
  // A run of a shell script in the place of hdiutil.
  std::string runScript(const std::string& script, Capture capture = Capture::bothOutputs,
                        ports::InputPipe* input = nullptr, std::vector<std::string> arguments = {}) {
    const auto tool = folder_.write("hdiutil", "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
    return tools_.run({"/usr/bin/hdiutil", std::move(arguments), input, capture});
  }
  std::string runTool(const char* tool, Capture capture = Capture::bothOutputs) {
    return tools_.run({tool, {}, nullptr, capture});
  }

  TemporaryFolder folder_;
  PathMap paths_{folder_.path(), "/nonexistent"};
  RecordingLog log_;
  PosixToolRuns tools_{paths_, log_};
};

TEST_F(PosixToolRunsTest, returnsBothOutputsInTheOrderInWhichTheyWereWritten) {
  EXPECT_EQ(runScript("echo a; echo b >&2; printf c"), "a\nb\nc");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PosixToolRunsTest, returnsOnlyTheErrorsWhenOnlyTheyAreCaptured) {
  EXPECT_EQ(runScript("echo a >/dev/null; echo b >&2", Capture::standardError), "b\n");
}

TEST_F(PosixToolRunsTest, returnsNothingOfARunThatCapturesNothing) {
  EXPECT_EQ(runScript("echo a >/dev/null; touch " + (folder_ / "ran"), Capture::none), "");
  EXPECT_TRUE(std::filesystem::exists(folder_ / "ran"));
}

TEST_F(PosixToolRunsTest, dropsAnOutputThatNobodyCapturesOnceItIsToldTo) {
  tools_.dropOutput();
  EXPECT_EQ(runScript("[ /proc/self/fd/1 -ef /dev/null ] && echo dropped >&2", Capture::standardError),
            "dropped\n");
  EXPECT_EQ(runScript("echo a"), "a\n");
}

TEST_F(PosixToolRunsTest, readsHowFarAToolHasCome) {
  tools_.followProgress();
  EXPECT_EQ(tools_.progress(), std::nullopt);
  EXPECT_EQ(runScript("[ \"$HDIUTIL_PROGRESS\" = 3 ] && printf 'PERCENT:042.500000\\n' >&3"), "");
  EXPECT_EQ(tools_.progress(), 0.425);
  for (const char* nonsense :
       {":", "printf 'PERCENT:101.000000\\n' >&3", "printf 'PERCENT:04' >&3", "printf 'half\\n' >&3"}) {
    runScript(nonsense);
    EXPECT_EQ(tools_.progress(), std::nullopt) << nonsense;
  }
}

TEST_F(PosixToolRunsTest, runsToolsBehindOthersOnceTheyAreToBeInTheBackground) {
  EXPECT_EQ(runScript("nice"), "0\n");
  tools_.setBackground(true);
  // The tool may be asked before its priority has been set.
  EXPECT_EQ(runScript("while [ \"$(nice)\" = 0 ]; do :; done; nice"), "10\n");
}

TEST_F(PosixToolRunsTest, drainsMoreThanAPipeHolds) {
  EXPECT_EQ(runScript("head -c 5000000 /dev/zero").size(), 5000000u);
}

TEST_F(PosixToolRunsTest, translatesArgumentsThatAreVolumePathsAndNoOthers) {
  paths_.setVolume("MY STICK", "/media/me/stick $(1)");
  EXPECT_EQ(runScript("printf '%s|' \"$@\"", Capture::bothOutputs, nullptr,
                      {"-srcfolder", "/Volumes/MY STICK", "/Volumes/MY STICK/", "", "a'b"}),
            "-srcfolder|/media/me/stick $(1)|/media/me/stick $(1)/||a'b|");
}

TEST_F(PosixToolRunsTest, feedsThePasswordThroughThePipe) {
  const auto pipe = tools_.makePipe();
  pipe->write(base::Secret("secret"));
  pipe->write(base::Secret(std::string_view("\0\n", 2)));
  pipe->closeWritingEnd();
  pipe->write(base::Secret("too late"));
  EXPECT_EQ(tools_.run({"/bin/cat", {}, pipe.get(), Capture::bothOutputs}), std::string("secret\0\n", 8));
}

TEST_F(PosixToolRunsTest, feedsMoreThanAPipeHoldsWhileItReads) {
  const std::string bytes(3'000'000, 'x');
  const auto pipe = tools_.makePipe();
  pipe->write(base::Secret(bytes));
  EXPECT_EQ(tools_.run({"/bin/cat", {}, pipe.get(), Capture::bothOutputs}), bytes);
}

TEST_F(PosixToolRunsTest, endsTheInputThatNobodyWroteToOrClosed) {
  const auto pipe = tools_.makePipe();
  EXPECT_EQ(tools_.run({"/usr/bin/wc", {"-c"}, pipe.get(), Capture::bothOutputs}), "0\n");
}

TEST_F(PosixToolRunsTest, doesNotWaitForAToolThatIgnoresItsInput) {
  const auto pipe = tools_.makePipe();
  pipe->write(base::Secret(std::string(1'000'000, 'x')));
  EXPECT_EQ(runScript("exec 0<&-; echo done", Capture::bothOutputs, pipe.get()), "done\n");
  const auto other = tools_.makePipe();
  other->write(base::Secret(std::string(1'000'000, 'x')));
  EXPECT_EQ(runScript("true", Capture::none, other.get()), "");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PosixToolRunsTest, doesNotWaitForWhatTheToolLeftInTheBackground) {
  const auto output = runScript("sleep 600 & echo $!; echo done");
  EXPECT_THAT(output, HasSubstr("\ndone\n"));
  EXPECT_EQ(::kill(std::stoi(output), SIGKILL), 0) << "it has ended by now";
}

TEST_F(PosixToolRunsTest, readsWhatABackgroundProcessPrintsSoonAfterTheTool) {
  EXPECT_EQ(runScript("mkfifo \"$0.fifo\"; { read -r line; echo \"$line\"; echo after; } <\"$0.fifo\" &\n"
                      "echo before >\"$0.fifo\""),
            "before\nafter\n");
}

TEST_F(PosixToolRunsTest, answersForAToolThatCannotBeLaunched) {
  EXPECT_EQ(runTool("/usr/sbin/diskutil", Capture::standardError),
            "/usr/sbin/diskutil: launch failed - No such file or directory\n");
  folder_.write("diskutil", "");
  EXPECT_EQ(runTool("/usr/sbin/diskutil", Capture::bothOutputs),
            "/usr/sbin/diskutil: launch failed - Permission denied\n");
  EXPECT_EQ(runTool("/usr/sbin/diskutil", Capture::none), "");
  EXPECT_THAT(log_.lines(),
              ElementsAre("[Stashwick] /usr/sbin/diskutil: launch failed - No such file or directory",
                          "[Stashwick] /usr/sbin/diskutil: launch failed - Permission denied",
                          "[Stashwick] /usr/sbin/diskutil: launch failed - Permission denied"));
}

TEST_F(PosixToolRunsTest, logsHowAToolEndedThatDidNotEndWell) {
  runScript("echo first; echo 'no space left' >&2; echo; exit 23");
  runScript("exit 1", Capture::none);
  runScript("kill -SEGV $$");
  EXPECT_THAT(log_.lines(),
              ElementsAre("[Stashwick] /usr/bin/hdiutil: exit status 23: no space left",
                          "[Stashwick] /usr/bin/hdiutil: exit status 1",
                          "[Stashwick] /usr/bin/hdiutil: ended by signal 11, Segmentation fault"));
}

TEST_F(PosixToolRunsTest, keepsAPasswordThatTheToolPrintedOutOfTheLog) {
  const auto pipe = tools_.makePipe();
  pipe->write(base::Secret(std::string_view("open sesame\0\n", 13)));
  EXPECT_EQ(runScript("read -r line; echo \"wrong: open sesame!\"; exit 2", Capture::bothOutputs, pipe.get()),
            "wrong: open sesame!\n");
  EXPECT_THAT(log_.lines(), ElementsAre("[Stashwick] /usr/bin/hdiutil: exit status 2"));
}

TEST_F(PosixToolRunsTest, startsToolsWithDefaultSignalsAndNoDescriptorsOfOurs) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto oldHandler = ::signal(SIGHUP, SIG_IGN);
  const int leaked = ::dup(0);  // without close-on-exec
  const auto blockedThere = runScript("awk '/SigBlk/ {print $2}' /proc/self/status");
  // The highest two of the ignored ones, 32 and 33, are the C library's own.
  const auto ignoredThere = runScript("awk '/SigIgn/ {print $2}' /proc/self/status");
  const auto descriptors = runScript("ls /proc/self/fd | wc -w");
  ::close(leaked);
  ::signal(SIGHUP, oldHandler);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(std::stoull(blockedThere, nullptr, 16), 0u);
  EXPECT_EQ(std::stoull(ignoredThere, nullptr, 16) & 0x7FFFFFFF, 0u);
  EXPECT_EQ(descriptors, "4\n");  // three streams, and the folder that ls itself reads
}

TEST_F(PosixToolRunsTest, saysThatAToolFailedThatWasKilledBeforeItCouldSaySo) {
  EXPECT_EQ(runScript("echo text; kill -KILL $$", Capture::standardError),
            "/usr/bin/hdiutil: failed - ended by signal 9, Killed\n");
  EXPECT_EQ(runScript("echo text; kill -KILL $$"),
            "text\n/usr/bin/hdiutil: failed - ended by signal 9, Killed\n");
}

TEST_F(PosixToolRunsTest, endsRunningToolsWhenQuittingAndLaunchesNoMore) {
  ASSERT_EQ(::mkfifo((folder_ / "started").c_str(), 0600), 0);
  const auto script = [&](const std::string& rest) { return "echo >" + (folder_ / "started") + "; " + rest; };
  auto running = std::async(std::launch::async, [&] { return runScript(script("exec sleep 600")); });
  folder_.read("started");  // returns when the tool has begun
  tools_.terminateAll(std::chrono::seconds(60));
  EXPECT_EQ(running.get(), "/usr/bin/hdiutil: failed - ended by signal 15, Terminated\n");
  EXPECT_EQ(runScript("touch " + (folder_ / "ran")),
            "/usr/bin/hdiutil: launch failed - the agent is quitting\n");
  EXPECT_FALSE(std::filesystem::exists(folder_ / "ran"));
  EXPECT_THAT(log_.lines(),
              testing::Contains("[Stashwick] /usr/bin/hdiutil: ended by signal 15, Terminated"));
}

TEST_F(PosixToolRunsTest, killsAToolThatDoesNotEndWhenAskedTo) {
  ASSERT_EQ(::mkfifo((folder_ / "started").c_str(), 0600), 0);
  auto running = std::async(std::launch::async, [&] {
    return runScript(
        "trap '' TERM; echo >" + (folder_ / "started") + "; while :; do read -r line </dev/zero; done",
        Capture::none);
  });
  folder_.read("started");
  tools_.terminateAll(std::chrono::milliseconds(50));
  EXPECT_EQ(running.get(), "");
  EXPECT_THAT(log_.lines(), ElementsAre("[Stashwick] /usr/bin/hdiutil: ended by signal 9, Killed"));
}

TEST_F(PosixToolRunsTest, runsToolsSideBySide) {
  ASSERT_EQ(::mkfifo((folder_ / "meeting").c_str(), 0600), 0);
  auto reader = std::async(std::launch::async, [&] {
    return tools_.run({"/bin/cat", {folder_ / "meeting"}, nullptr, Capture::bothOutputs});
  });
  const auto pipe = tools_.makePipe();
  pipe->write(base::Secret("hello"));
  tools_.run({"/usr/bin/tee", {folder_ / "meeting"}, pipe.get(), Capture::bothOutputs});
  EXPECT_EQ(reader.get(), "hello");
}

}  // namespace
