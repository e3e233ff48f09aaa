#include "platform/fake/disks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "platform/fake/world.h"

namespace platform::fake {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct FakeDisks : testing::Test {
  std::optional<ports::Dissenter> outcomeOf(void (ports::DiskArbitration::*operation)(const ports::DiskRef&,
                                                                                      ports::DiskCompletion),
                                            const ports::DiskRef& disk) {
    std::optional<ports::Dissenter> outcome;
    bool done = false;
    (world.disks.*operation)(disk, [&](const auto& dissenter) {
      outcome = dissenter;
      done = true;
    });
    world.runMainQueue();
    EXPECT_TRUE(done);
    return outcome;
  }
  std::unique_ptr<ports::DiskSession> refusingSession(const char* text) {
    return world.disks.createSession(
        {.appeared = {},
         .disappeared = [this](const ports::DiskRef&) { ++departures; },
         .approveUnmount =
             [text](const ports::DiskRef&) {
               return std::optional(ports::Dissenter{ports::kDAReturnBusy, text});
             }});
  }

  int departures = 0;
  World world;
};

TEST_F(FakeDisks, describeAPlainStickThatAppearsNow) {
  world.letSecondsPass(100);
  const auto description = world.disks.usbPartition("STICK");
  EXPECT_EQ(*base::find<std::string>(description, ports::kDADiskDescriptionMediaBSDNameKey), "disk2s1");
  EXPECT_EQ(*base::find<std::string>(description, ports::kDADiskDescriptionDeviceProtocolKey), "USB");
  EXPECT_EQ(base::findNumber(description, ports::kDAAppearanceTimeKey),
            Clock::kStart.secondsSinceReferenceDate + 100);
  const auto next = world.disks.usbPartition("STICK");
  EXPECT_EQ(*base::find<std::string>(next, ports::kDADiskDescriptionMediaBSDNameKey), "disk3s1");
  EXPECT_NE(*base::find<std::string>(next, ports::kDADiskDescriptionMediaUUIDKey),
            *base::find<std::string>(description, ports::kDADiskDescriptionMediaUUIDKey));
}

TEST_F(FakeDisks, haveAVolumeWhilePlugged) {
  const auto disk = world.disks.plugUSB("STICK");
  EXPECT_TRUE(world.files.fileExists("/Volumes/STICK"));
  EXPECT_EQ(world.files.fileSystemFreeSize("/Volumes/STICK"), 1'000'000'000U);
  world.disks.pull(disk);
  EXPECT_FALSE(world.files.fileExists("/Volumes/STICK"));
  EXPECT_FALSE(world.disks.isPresent(disk));
}

TEST_F(FakeDisks, arePulledOneByOne) {
  const auto first = world.disks.plugUSB("FIRST");
  const auto second = world.disks.plugUSB("SECOND");
  world.disks.pull(second);
  EXPECT_TRUE(world.disks.isPresent(first));
  EXPECT_FALSE(world.disks.isPresent(second));
}

TEST_F(FakeDisks, keepTheirContentsAndFreeSizeThroughUnmountMountAndRename) {
  const auto disk = world.disks.plugUSB("STICK");
  world.files.write("/Volumes/STICK/file", "text");
  world.files.setFreeSize("/Volumes/STICK", 77);
  EXPECT_FALSE(outcomeOf(&ports::DiskArbitration::unmount, disk));
  EXPECT_FALSE(world.files.fileExists("/Volumes/STICK"));
  EXPECT_FALSE(outcomeOf(&ports::DiskArbitration::mount, disk));
  world.disks.rename(disk, "OTHER");
  EXPECT_EQ(world.disks.volumePath(disk), "/Volumes/STICK");
  world.runMainQueue();
  EXPECT_EQ(world.disks.volumePath(disk), "/Volumes/OTHER");
  EXPECT_EQ(world.files.read("/Volumes/OTHER/file"), "text");
  EXPECT_EQ(world.files.fileSystemFreeSize("/Volumes/OTHER"), 77U);
}

TEST_F(FakeDisks, ofOneNameAreMountedSideBySide) {
  world.disks.plugUSB("UNTITLED");
  const auto second = world.disks.plugUSB("UNTITLED");
  EXPECT_EQ(world.disks.volumePath(second), "/Volumes/UNTITLED 1");
  EXPECT_EQ(world.disks.diskFromVolumePath({"/Volumes/UNTITLED 1", true}), second);
}

TEST_F(FakeDisks, withANameThatIsNoPathComponentAreNotMounted) {
  for (const char* name : {"", ".", "..", "a/b", "a\nb"}) {
    EXPECT_FALSE(world.disks.isMounted(world.disks.plugUSB(name))) << name;
  }
}

TEST_F(FakeDisks, cannotBeHadWhereThereIsNoArbitration) {
  world.disks.failNextSessions(true);
  EXPECT_EQ(world.disks.createSession({}), nullptr);
  world.disks.failNextSessions(false);
  EXPECT_NE(world.disks.createSession({}), nullptr);
}

TEST_F(FakeDisks, areRefusedToOtherProgramsByAnySession) {
  const auto disk = world.disks.plugUSB("STICK");
  EXPECT_FALSE(world.disks.requestUnmountByOther(disk));
  EXPECT_FALSE(world.disks.isMounted(disk));
  const auto other = world.disks.plugUSB("OTHER");
  const auto session = refusingSession("Writing.");
  const auto refusal = world.disks.requestUnmountByOther(other);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->statusString, "Writing.");
  EXPECT_TRUE(world.disks.isMounted(other));
}

TEST_F(FakeDisks, areRefusedOnceByTheSystem) {
  const auto disk = world.disks.plugUSB("STICK");
  world.disks.refuseNext({ports::kDAReturnNotPermitted, "No."});
  const auto refusal = outcomeOf(&ports::DiskArbitration::unmount, disk);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->status, ports::kDAReturnNotPermitted);
  EXPECT_FALSE(outcomeOf(&ports::DiskArbitration::unmount, disk));
}

TEST_F(FakeDisks, departWhenEjected) {
  const auto disk = world.disks.plugUSB("STICK");
  auto session = refusingSession("Writing.");
  world.runMainQueue();
  EXPECT_TRUE(outcomeOf(&ports::DiskArbitration::eject, disk));
  EXPECT_FALSE(world.disks.isEjected(disk));
  session.reset();
  session = world.disks.createSession(
      {.appeared = {}, .disappeared = [this](const ports::DiskRef&) { ++departures; }, .approveUnmount = {}});
  EXPECT_FALSE(outcomeOf(&ports::DiskArbitration::eject, disk));
  EXPECT_TRUE(world.disks.isEjected(disk));
  EXPECT_EQ(departures, 1);
}

TEST_F(FakeDisks, countClaims) {
  const auto disk = world.disks.plugUSB("STICK");
  world.disks.claim(disk);
  std::thread([&] { world.disks.claim(disk); }).join();
  EXPECT_EQ(world.disks.claims(disk), 2);
  world.disks.unclaim(disk);
  EXPECT_EQ(world.disks.claims(disk), 1);
}

TEST_F(FakeDisks, areSaidToBeAskedFromTheWrongThread) {
  std::vector<std::string> failures;
  world.failure.handleWith([&](const std::string& message) { failures.push_back(message); });
  const auto disk = world.disks.plugUSB("STICK");
  std::thread([&] { world.disks.copyDescription(disk); }).join();
  EXPECT_THAT(failures, ElementsAre(HasSubstr("copyDescription")));
}

}  // namespace
}  // namespace platform::fake
