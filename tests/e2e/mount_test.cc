#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>

#include "image/fuse/mount_table.h"
#include "image/fuse/unmount.h"
#include "tests/e2e/agent_world.h"
#include "tests/support/own_mounts.h"

namespace {

namespace fs = std::filesystem;
namespace fuse = image::fuse;
using testing::HasSubstr;
using testing::Not;

// The disk image tool as people and scripts run it.
class MountTool : public AgentWorld {
 protected:
  MountTool() {
    takeOwnMountsAsRoot();
    makeStick("STICK");
  }
  ~MountTool() override {
    for (const auto& mount : fuse::mountTable()) {
      if (!mount.mountPoint.starts_with(temporary.path())) continue;
      if (mount.server) ::kill(mount.server->process, SIGKILL);
      EXPECT_TRUE(fuse::detach(mount.mountPoint, fuse::Detach::atOnce));
    }
  }

  // A line that has to succeed.
  void run(const std::string& line) {
    const auto outcome = shell(line);
    ASSERT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
  }
  void createEncrypted() {
    run("printf 'pass word\\0' | " + hdiutil +
        " create -volname STICK-Backup -encryption AES-128 -stdinpass -srcfolder STICK STICK.dmg");
  }
  void create() { run(hdiutil + " create -volname STICK-Backup -srcfolder STICK STICK.dmg"); }

  const std::string tool = fs::path(AGENT_PROGRAM).parent_path().parent_path() / "libexec/stashwick/hdiutil";
  const std::string hdiutil = "'" + tool + "'";
  const std::string mountPoint = dataHome + "/stashwick/Volumes/STICK-Backup";
};

TEST_F(MountTool, asksForThePasswordAtATerminalWithoutShowingIt) {
  createEncrypted();
  Program program({tool, "mount", "STICK.dmg"}, {{"XDG_DATA_HOME", dataHome}}, temporary.path(),
                  Program::Screen::terminal);
  program.expect("Password of the image: ");
  program.type("pass word\n");
  program.expect(mountPoint);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(program.output(), Not(HasSubstr("pass word")));
  EXPECT_EQ(shell("diff -r --no-dereference STICK '" + mountPoint + "'").output, "");
}

TEST_F(MountTool, doesNotWaitForAPasswordThatNobodyTypes) {
  createEncrypted();
  const auto refused = shell(hdiutil + " attach STICK.dmg");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.errors, "hdiutil: attach failed - Authentication error\n");
}

// The outcome is complete only once nobody has the streams open any more.
TEST_F(MountTool, leavesAServerThatHoldsNothingOfItsCallers) {
  create();
  const auto mounted = shell("exec 7> lock; flock 7; " + hdiutil + " mount STICK.dmg");
  EXPECT_EQ(mounted.output, mountPoint + "\n");
  EXPECT_EQ(mounted.errors, "");
  ASSERT_TRUE(fuse::mountAt(mountPoint));
  EXPECT_EQ(shell("flock --nonblock lock true").status, 0);
  EXPECT_EQ(shell(hdiutil + " unmount '" + mountPoint + "/'").output, "unmounted: " + mountPoint + "\n");
  EXPECT_FALSE(fs::exists(mountPoint));
}

TEST_F(MountTool, keepsTheFoldersThatItMakesToTheirUser) {
  create();
  ASSERT_NO_FATAL_FAILURE(run("umask 022; " + hdiutil + " mount STICK.dmg"));
  EXPECT_EQ(shell("cd '" + dataHome + "' && stat -c %a stashwick stashwick/Volumes").output, "700\n700\n");
}

TEST_F(MountTool, leavesAServerThatForgetsThePassword) {
  createEncrypted();
  ASSERT_NO_FATAL_FAILURE(run("printf 'pass word\\0' | " + hdiutil + " mount STICK.dmg"));
  const auto searched = shell(
      "python3 -c 'import sys\n"
      "process = sys.argv[1]\n"
      "found = searched = 0\n"
      "with open(f\"/proc/{process}/mem\", \"rb\") as memory:\n"
      "  for line in open(f\"/proc/{process}/maps\"):\n"
      "    if line.split()[1][:2] != \"rw\": continue\n"
      "    start, end = (int(part, 16) for part in line.split()[0].split(\"-\"))\n"
      "    memory.seek(start)\n"
      "    try: part = memory.read(min(end - start, 1 << 28))\n"
      "    except OSError: continue\n"
      "    searched += len(part)\n"
      "    found += part.count(b\"pass word\")\n"
      "print(found, searched > 100000)' " +
      std::to_string(fuse::mountAt(mountPoint)->server->process));
  EXPECT_EQ(searched.output, "0 True\n") << searched.errors;
}

TEST_F(MountTool, mountsTwoImagesOfOneNameSideBySide) {
  create();
  ASSERT_NO_FATAL_FAILURE(run("cp STICK.dmg other.dmg; " + hdiutil + " attach STICK.dmg"));
  EXPECT_EQ(shell(hdiutil + " mount other.dmg").status, 1);
  EXPECT_EQ(shell(hdiutil + " attach other.dmg").output, mountPoint + " 1\tof the volume \"STICK-Backup\"\n");
  EXPECT_EQ(shell("diff -r --no-dereference '" + mountPoint + "' '" + mountPoint + " 1'").status, 0);
  run(hdiutil + " detach other.dmg");
  EXPECT_TRUE(fuse::mountAt(mountPoint));
}

}  // namespace
