#include "image/fuse/mount_table.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/tools/scratch_folder.h"

namespace {

using namespace image::fuse;

TEST(MountTableLine, givesMountPointSourceAndType) {
  const auto mount =
      parseMount("36 35 98:0 /sub /mnt/a rw,noatime master:1 shared:2 - ext3 /dev/root rw,errors=continue");
  ASSERT_TRUE(mount);
  EXPECT_EQ(mount->mountPoint, "/mnt/a");
  EXPECT_EQ(mount->source, "/dev/root");
  EXPECT_EQ(mount->fileSystem, "ext3");
  EXPECT_FALSE(mount->server);
}

TEST(MountTableLine, spellsOutEscapedCharacters) {
  const auto mount = parseMount(R"(36 35 0:5 / /Volumes/A\040B\134\011x - tmpfs none rw)");
  ASSERT_TRUE(mount);
  EXPECT_EQ(mount->mountPoint, "/Volumes/A B\\\tx");
}

TEST(MountTableLine, isNoneWithoutItsSecondHalf) {
  EXPECT_FALSE(parseMount(""));
  EXPECT_FALSE(parseMount("36 35 98:0 / /mnt/a rw"));
  EXPECT_FALSE(parseMount("36 35 98:0 / /mnt/a rw - ext3"));
}

TEST(MountTableLine, tellsTheServerOfOurMountsOnly) {
  const auto ours = parseMount("36 35 0:5 / /a rw - fuse.hdiutil hdiutil:12:34:5:6:7:-8 ro");
  ASSERT_TRUE(ours && ours->server);
  EXPECT_EQ(ours->server->process, 12);
  EXPECT_EQ(ours->server->started, 34U);
  EXPECT_EQ(ours->server->image, (ImageIdentity{5, 6, 7, -8}));
  EXPECT_FALSE(parseMount("36 35 0:5 / /a rw - fuse.other hdiutil:12:34:5:6:7:8 ro")->server);
}

TEST(ServerText, isReadBackAsItWasWritten) {
  const Server server{123, 456, {7, 8, 9, -10}};
  const auto read = Server::parse(server.text());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->text(), server.text());
}

TEST(ServerText, isRefusedWhenAnythingIsWrong) {
  for (const char* text :
       {"", "hdiutil:", "hdiutil:1:2:3:4:5", "hdiutil:1:2:3:4:5:6:7", "hdiutil:0:2:3:4:5:6",
        "hdiutil:-1:2:3:4:5:6", "other:1:2:3:4:5:6", "hdiutil:1:2:3:4:5:x"})
    EXPECT_FALSE(Server::parse(text)) << text;
}

TEST(ImageIdentity, isTheFileAndItsContentsNotItsName) {
  const ScratchFolder scratch;
  const std::string first = scratch.write("first", "1");
  const auto before = ImageIdentity::of(first);
  ASSERT_TRUE(before);
  std::filesystem::rename(first, scratch / "second");
  EXPECT_EQ(*ImageIdentity::of(scratch / "second"), *before);
  scratch.write("second", "12");
  EXPECT_NE(*ImageIdentity::of(scratch / "second"), *before);
  EXPECT_FALSE(ImageIdentity::of(first));
}

TEST(MountServer, isAliveUntilItEnds) {
  const auto self = Server::thisProcess({});
  EXPECT_TRUE(self.isAlive());
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_FALSE((Server{child, 1, {}}).isAlive());
}

TEST(MountServer, isNoneThatStartedAtAnotherTime) {
  auto other = Server::thisProcess({});
  ++other.started;
  EXPECT_FALSE(other.isAlive());
}

}  // namespace
