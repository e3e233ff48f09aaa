// What people at a terminal, and programs that follow, see of a verification under way.

#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/e2e/agent_world.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class VerifyProgress : public AgentWorld {
 protected:
  VerifyProgress() {
    const auto backup = backUp({makeStick("STICK")});
    EXPECT_EQ(backup.status, 0) << backup.errors;
  }

  std::string image() const { return imagesOf("STICK").at(0); }
  const std::string hdiutil = fs::path(CTL_PROGRAM).parent_path().parent_path() / "libexec/stashwick/hdiutil";
};

TEST_F(VerifyProgress, isABarOnATerminal) {
  const auto verify = start({hdiutil, "verify", image()}, Program::Screen::terminal);
  EXPECT_EQ(verify->wait(), 0);
  EXPECT_THAT(verify->output(), HasSubstr("100%  [##############################]"));
  EXPECT_THAT(verify->output(), EndsWith("is VALID\r\n"));
}

TEST_F(VerifyProgress, isNotShownElsewhere) {
  const auto verify = outcomeOf(*start({hdiutil, "verify", image()}));
  EXPECT_EQ(verify.output, "");
  EXPECT_THAT(verify.errors, Not(HasSubstr("%")));
  const auto run = ctl({"verify", "--all"});
  EXPECT_EQ(run.output, "STICK/1: sound\n");
  EXPECT_EQ(run.errors, "");
}

TEST_F(VerifyProgress, isToldToWhoFollowsIt) {
  environment["HDIUTIL_PROGRESS"] = "1";
  EXPECT_EQ(shell("\"" + hdiutil + "\" verify \"" + image() + "\" 3>told").status, 0);
  EXPECT_EQ(temporary.read("told"), "PERCENT:100.000000\n");
}

// With a tool that is half through its work until the test lets it go on.
TEST_F(VerifyProgress, isShownByTheCommandLineWhileTheToolRuns) {
  fs::create_directories(temporary / "app/bin");
  fs::copy_file(CTL_PROGRAM, temporary / "app/bin/stashwickctl");
  ASSERT_EQ(::mkfifo((temporary / "gate").c_str(), 0600), 0);
  const auto tool = temporary.write("app/libexec/stashwick/hdiutil",
                                    "#!/bin/sh\nprintf 'PERCENT:50.000000\\n' >&3\nread go <\"" +
                                        temporary / "gate" + "\"\nexec \"" + hdiutil + "\" \"$@\"\n");
  fs::permissions(tool, fs::perms::owner_all);
  const auto verify =
      start({temporary / "app/bin/stashwickctl", "verify", "--all"}, Program::Screen::terminal);
  verify->expect("Verifying STICK/1 [############            ] 50% 0:0");
  EXPECT_EQ(shell("echo go > gate").status, 0);
  EXPECT_EQ(verify->wait(), 0);
  EXPECT_THAT(verify->output(), EndsWith("STICK/1: sound\r\n"));
}

}  // namespace
