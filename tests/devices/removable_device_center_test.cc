// The device centre: arrivals, departures, reloads, the refusal of unmounts, and its end.

#include "devices/removable_device_center.h"

#include <functional>
#include <thread>

#include "tests/devices/devices_test.h"

namespace tests::devices {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view kMounted = ZQRemovableDeviceCenterDeviceMountedNotification;
constexpr std::string_view kUnmounted = ZQRemovableDeviceCenterDeviceUnmountedNotification;
constexpr std::string_view kReloaded = ZQRemovableDeviceCenterDataReloadedNotification;
constexpr const char* kRefusal =
    "Stashwick is busy writing to this device. Please cancel the operation first.";

std::vector<std::string> namesIn(const ZQRemovableDeviceCenter& center) {
  std::vector<std::string> names;
  for (const auto& device : center.availableDevices()) names.push_back(device->name());
  return names;
}

// Remembers both calls, each with the names of the devices listed at that moment.
class Delegate : public ZQRemovableDeviceCenterDelegate {
 public:
  void removableDeviceCenterWillReloadData(ZQRemovableDeviceCenter& center) override { note("will", center); }
  void removableDeviceCenterDidReloadData(ZQRemovableDeviceCenter& center) override { note("did", center); }

  std::vector<std::string> calls;
  std::vector<const ZQRemovableDeviceCenter*> centers;

 private:
  void note(std::string call, const ZQRemovableDeviceCenter& center) {
    for (const auto& name : namesIn(center)) call += " " + name;
    calls.push_back(call);
    centers.push_back(&center);
  }
};

class CenterTest : public DevicesTest {
 protected:
  CenterTest() {
    notePosts(kMounted);
    notePosts(kUnmounted);
  }

  void start() {
    center = std::make_unique<ZQRemovableDeviceCenter>(host);
    world.runMainQueue();
  }
  void reload() {
    center->reloadData();
    world.runMainQueue();
  }
  ports::DiskRef plug(const Entries& description) {
    auto disk = world.disks.plug(description);
    world.runMainQueue();
    return disk;
  }
  ports::DiskRef plugUSB(const std::string& name) { return plug(world.disks.usbPartition(name)); }
  void pull(const ports::DiskRef& disk) {
    world.disks.pull(disk);
    world.runMainQueue();
  }
  void post(std::string_view name) {
    world.notifications.post(name);
    world.runMainQueue();
  }
  Device listed(std::size_t index = 0) const { return center->availableDevices().at(index); }
  std::vector<std::string> names() const { return namesIn(*center); }
  Entries wholeDisk(const std::string& name) {
    auto description = world.disks.usbPartition(name);
    description.insert_or_assign(std::string(ports::kDADiskDescriptionMediaWholeKey), true);
    return description;
  }

  std::unique_ptr<ZQRemovableDeviceCenter> center;
};

using CenterStart = CenterTest;
using CenterArrivals = CenterTest;
using CenterDepartures = CenterTest;
using CenterReload = CenterTest;
using CenterDelegate = CenterTest;
using CenterUnmountApproval = CenterTest;
using CenterEnd = CenterTest;

TEST_F(CenterStart, hasAnEmptyListUntilTheMainQueueRuns) {
  world.disks.plugUSB("STICK");
  center = std::make_unique<ZQRemovableDeviceCenter>(host);
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(center->delegate(), nullptr);
  world.runMainQueue();
  EXPECT_THAT(names(), ElementsAre("STICK"));
}

TEST_F(CenterStart, postsTheArrivalOfEveryVolumeThatIsPresent) {
  world.disks.plugUSB("FIRST");
  world.disks.plugUSB("SECOND");
  start();
  EXPECT_THAT(names(), ElementsAre("FIRST", "SECOND"));
  EXPECT_THAT(events, ElementsAre(kMounted, kMounted));
}

TEST_F(CenterStart, withoutASessionHasAnEmptyListAndReportsNothing) {
  world.disks.plugUSB("STICK");
  world.disks.failNextSessions(true);
  start();
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(CenterArrivals, areListedInOrderAndPostedWithTheListedDevice) {
  start();
  plugUSB("FIRST");
  EXPECT_EQ(lastObject(), listed(0));
  plugUSB("SECOND");
  EXPECT_EQ(lastObject(), listed(1));
  EXPECT_THAT(names(), ElementsAre("FIRST", "SECOND"));
  EXPECT_THAT(events, ElementsAre(kMounted, kMounted));
}

TEST_F(CenterArrivals, areListedWhenTheyArePosted) {
  start();
  std::vector<std::string> seen;
  world.notifications.addObserver(
      kMounted, [](const auto& deliver) { deliver(); }, [&](const auto&) { seen = names(); });
  plugUSB("STICK");
  EXPECT_THAT(seen, ElementsAre("STICK"));
}

TEST_F(CenterArrivals, ofAWholeDiskAreIgnoredAndOfItsPartitionAreNot) {
  start();
  plug(wholeDisk("STICK"));
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, IsEmpty());
  plugUSB("STICK");
  EXPECT_THAT(names(), ElementsAre("STICK"));
  EXPECT_THAT(events, ElementsAre(kMounted));
}

TEST_F(CenterArrivals, ofADiskWithoutTheWholeMediaEntryAreIgnored) {
  start();
  plug(stickWithout(ports::kDADiskDescriptionMediaWholeKey));
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(CenterArrivals, withAWholeMediaEntryOfTheWrongKindAreIgnored) {
  start();
  plug(stickWith(ports::kDADiskDescriptionMediaWholeKey, "no"));
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(CenterArrivals, ofDeclinedDescriptionsAreSkippedInSilence) {
  start();
  plugUSB("");
  plug(stickWithout(ports::kDADiskDescriptionVolumeNameKey));
  plug(stickWith(ports::kDADiskDescriptionVolumeKindKey, "autofs"));
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(CenterArrivals, areListedWhateverTheProtocolAndWhetherInternalOrNot) {
  start();
  plug(stickWith(ports::kDADiskDescriptionDeviceInternalKey, true));
  plug(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, "Virtual Interface"));
  plug(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, "SATA"));
  ASSERT_EQ(center->availableDevices().size(), 3);
  EXPECT_EQ(listed(0)->type(), ZQRemovableDeviceTypeInternal);
  EXPECT_EQ(listed(1)->type(), ZQRemovableDeviceTypeVirtual);
  EXPECT_EQ(listed(2)->protocol(), ZQRemovableDeviceProtocolSATA);
}

TEST_F(CenterArrivals, ofEqualVolumesAreAllListed) {
  start();
  plugUSB("UNTITLED");
  plugUSB("UNTITLED");
  EXPECT_THAT(names(), ElementsAre("UNTITLED", "UNTITLED"));
}

TEST_F(CenterDepartures, leaveTheListAndArePostedWithANewEqualDevice) {
  start();
  const auto disk = plugUSB("STICK");
  plugUSB("OTHER");
  const auto device = listed(0);
  pull(disk);
  EXPECT_THAT(names(), ElementsAre("OTHER"));
  EXPECT_THAT(events, ElementsAre(kMounted, kMounted, kUnmounted));
  EXPECT_NE(lastObject(), device);
  EXPECT_TRUE(lastObject()->isEqual(*device));
}

TEST_F(CenterDepartures, haveLeftTheListWhenTheyArePosted) {
  start();
  const auto disk = plugUSB("STICK");
  std::vector<std::string> seen = {"not posted"};
  world.notifications.addObserver(
      kUnmounted, [](const auto& deliver) { deliver(); }, [&](const auto&) { seen = names(); });
  pull(disk);
  EXPECT_THAT(seen, IsEmpty());
}

TEST_F(CenterDepartures, ofOneVolumeRemoveEveryEqualOne) {
  start();
  plugUSB("UNTITLED");
  const auto second = plugUSB("UNTITLED");
  pull(second);
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, ElementsAre(kMounted, kMounted, kUnmounted));
}

TEST_F(CenterDepartures, leaveVolumesOfTheSameNameAndOtherTypes) {
  start();
  const auto disk = plugUSB("STICK");
  plug(stickWith(ports::kDADiskDescriptionDeviceInternalKey, true));
  pull(disk);
  ASSERT_THAT(names(), ElementsAre("STICK"));
  EXPECT_EQ(listed()->type(), ZQRemovableDeviceTypeInternal);
}

TEST_F(CenterDepartures, ofAWholeDiskCountLikeThoseOfVolumes) {
  start();
  plugUSB("STICK");
  const auto whole = plug(wholeDisk("STICK"));
  pull(whole);
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, ElementsAre(kMounted, kUnmounted));
}

TEST_F(CenterDepartures, ofADiskThatNoLongerDescribesAVolumeRemoveNothingAndPostNothing) {
  start();
  const auto nameless = plugUSB("STICK");
  const auto automounted = plugUSB("OTHER");
  world.disks.changeDescription(nameless, entry(ports::kDADiskDescriptionVolumeNameKey, ""));
  world.disks.changeDescription(automounted, entry(ports::kDADiskDescriptionVolumeKindKey, "autofs"));
  pull(nameless);
  pull(automounted);
  EXPECT_THAT(names(), ElementsAre("STICK", "OTHER"));
  EXPECT_THAT(events, ElementsAre(kMounted, kMounted));
}

TEST_F(CenterDepartures, goByTheLastDescription) {
  start();
  const auto disk = plugUSB("STICK");
  plugUSB("OTHER");
  world.disks.changeDescription(disk, entry(ports::kDADiskDescriptionVolumeNameKey, "OTHER"));
  pull(disk);
  EXPECT_THAT(names(), ElementsAre("STICK"));
  EXPECT_EQ(lastObject()->name(), "OTHER");
}

TEST_F(CenterDepartures, ofWhatIsNotListedArePostedAllTheSame) {
  start();
  const auto whole = plug(wholeDisk("STICK"));
  pull(whole);
  EXPECT_THAT(events, ElementsAre(kUnmounted));
}

TEST_F(CenterReload, postsEveryArrivalAgainWithNewDevices) {
  start();
  plugUSB("FIRST");
  plugUSB("SECOND");
  const auto before = center->availableDevices();
  reload();
  EXPECT_THAT(names(), ElementsAre("FIRST", "SECOND"));
  EXPECT_THAT(events, ElementsAre(kMounted, kMounted, kMounted, kMounted));
  EXPECT_NE(listed(0), before[0]);
  EXPECT_EQ(lastObject(), listed(1));
}

TEST_F(CenterReload, emptiesTheListUntilTheMainQueueRuns) {
  start();
  plugUSB("STICK");
  center->reloadData();
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(events, ElementsAre(kMounted));
}

TEST_F(CenterReload, isMadeByAnybodysNotification) {
  start();
  plugUSB("STICK");
  const auto before = listed();
  post(kReloaded);
  EXPECT_THAT(names(), ElementsAre("STICK"));
  EXPECT_NE(listed(), before);
  EXPECT_THAT(events, ElementsAre(kMounted, kMounted));
}

TEST_F(CenterReload, askedForOnAnotherThreadIsMadeOnTheMainOne) {
  start();
  plugUSB("STICK");
  const auto before = listed();
  world.runWhile([&] { world.notifications.post(kReloaded); });
  world.runMainQueue();
  EXPECT_NE(listed(), before);
}

TEST_F(CenterReload, followsEachMountUnmountAndRename) {
  start();
  const auto disk = plugUSB("STICK");
  listed()->unmount();
  world.runMainQueue();
  ASSERT_THAT(names(), ElementsAre("STICK"));
  EXPECT_FALSE(listed()->mounted());
  listed()->mount();
  world.runMainQueue();
  EXPECT_TRUE(listed()->mounted());
  listed()->rename("OTHER");
  world.runMainQueue();
  EXPECT_THAT(names(), ElementsAre("OTHER"));
}

TEST_F(CenterReload, hasOneSessionAtATime) {
  start();
  reload();
  reload();
  EXPECT_EQ(world.disks.liveSessionCount(), 1);
  plugUSB("STICK");
  EXPECT_THAT(names(), ElementsAre("STICK"));
  EXPECT_THAT(events, ElementsAre(kMounted));
}

TEST_F(CenterReload, withoutASessionLeavesTheListEmptyAndCallsTheDelegateAllTheSame) {
  start();
  plugUSB("STICK");
  const auto delegate = std::make_shared<Delegate>();
  center->setDelegate(delegate);
  world.disks.failNextSessions(true);
  reload();
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(delegate->calls, ElementsAre("will STICK", "did"));
  EXPECT_THAT(events, ElementsAre(kMounted));
  EXPECT_THAT(world.log.lines(), IsEmpty());
  world.disks.failNextSessions(false);
  reload();
  EXPECT_THAT(names(), ElementsAre("STICK"));
}

TEST_F(CenterReload, replacesAClaimedDeviceByAnUnclaimedOneOfTheSameVolume) {
  start();
  const auto disk = plugUSB("STICK");
  const auto claimed = listed();
  claimed->claim();
  ASSERT_TRUE(world.disks.requestUnmountByOther(disk));
  reload();
  ASSERT_THAT(names(), ElementsAre("STICK"));
  EXPECT_NE(listed(), claimed);
  EXPECT_FALSE(listed()->claimed());
  EXPECT_FALSE(world.disks.requestUnmountByOther(disk));
  EXPECT_FALSE(world.disks.isMounted(disk));
}

TEST_F(CenterReload, leavesTheClaimWithTheDisk) {
  start();
  const auto disk = plugUSB("STICK");
  listed()->claim();
  reload();
  EXPECT_EQ(world.disks.claims(disk), 1);
  EXPECT_THAT(events, ElementsAre(kMounted, "claim", kMounted));
}

TEST_F(CenterDelegate, isToldBeforeAndAfterTheListIsEmptied) {
  start();
  plugUSB("STICK");
  const auto delegate = std::make_shared<Delegate>();
  center->setDelegate(delegate);
  EXPECT_EQ(center->delegate(), delegate);
  reload();
  EXPECT_THAT(delegate->calls, ElementsAre("will STICK", "did"));
  EXPECT_THAT(delegate->centers, ElementsAre(center.get(), center.get()));
  EXPECT_THAT(names(), ElementsAre("STICK"));
}

TEST_F(CenterDelegate, isToldOfReloadsByNotificationToo) {
  start();
  const auto delegate = std::make_shared<Delegate>();
  center->setDelegate(delegate);
  post(kReloaded);
  EXPECT_THAT(delegate->calls, ElementsAre("will", "did"));
}

TEST_F(CenterDelegate, needNotOverrideAnything) {
  start();
  plugUSB("STICK");
  center->setDelegate(std::make_shared<ZQRemovableDeviceCenterDelegate>());
  reload();
  EXPECT_THAT(names(), ElementsAre("STICK"));
}

TEST_F(CenterDelegate, isHeldUntilItIsReplacedOrTheCentreEnds) {
  start();
  std::weak_ptr<ZQRemovableDeviceCenterDelegate> first;
  std::weak_ptr<ZQRemovableDeviceCenterDelegate> second;
  const auto set = [&](auto& watched) {
    auto delegate = std::make_shared<Delegate>();
    watched = delegate;
    center->setDelegate(std::move(delegate));
  };
  set(first);
  EXPECT_FALSE(first.expired());
  set(second);
  EXPECT_TRUE(first.expired());
  EXPECT_FALSE(second.expired());
  center.reset();
  EXPECT_TRUE(second.expired());
}

TEST_F(CenterUnmountApproval, isGivenWhileNothingIsClaimed) {
  start();
  const auto disk = plugUSB("STICK");
  EXPECT_FALSE(world.disks.requestUnmountByOther(disk));
  EXPECT_FALSE(world.disks.isMounted(disk));
}

TEST_F(CenterUnmountApproval, isRefusedForTheClaimedVolume) {
  start();
  const auto disk = plugUSB("STICK");
  listed()->claim();
  const auto refusal = world.disks.requestUnmountByOther(disk);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->status, ports::kDAReturnBusy);
  EXPECT_EQ(refusal->statusString, kRefusal);
  EXPECT_TRUE(world.disks.isMounted(disk));
}

TEST_F(CenterUnmountApproval, isRefusedForEveryDiskWhileAnyListedDeviceIsClaimed) {
  start();
  const auto unrelated = plugUSB("OTHER");
  plugUSB("STICK");
  const auto unlisted = plug(wholeDisk("WHOLE"));
  listed(1)->claim();
  for (const auto& disk : {unrelated, unlisted}) {
    const auto refusal = world.disks.requestUnmountByOther(disk);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->status, ports::kDAReturnBusy);
    EXPECT_EQ(refusal->statusString, kRefusal);
    EXPECT_TRUE(world.disks.isMounted(disk));
  }
}

TEST_F(CenterUnmountApproval, isGivenAgainAfterTheClaim) {
  start();
  const auto disk = plugUSB("STICK");
  listed()->claim();
  listed()->unclaim();
  EXPECT_FALSE(world.disks.requestUnmountByOther(disk));
}

TEST_F(CenterUnmountApproval, isGivenWhenTheClaimedVolumeHasGone) {
  start();
  const auto other = plugUSB("OTHER");
  const auto disk = plugUSB("STICK");
  listed(1)->claim();
  pull(disk);
  EXPECT_FALSE(world.disks.requestUnmountByOther(other));
}

TEST_F(CenterUnmountApproval, isGivenToAClaimedDevicesOwnUnmount) {
  start();
  const auto disk = plugUSB("STICK");
  listed()->claim();
  listed()->unmount();
  world.runMainQueue();
  EXPECT_FALSE(world.disks.isMounted(disk));
}

TEST_F(CenterUnmountApproval, isRefusedToOurOwnUnmountOfAnotherDeviceToo) {
  start();
  const auto other = plugUSB("OTHER");
  plugUSB("STICK");
  listed(1)->claim();
  ::testing::internal::CaptureStdout();
  listed(0)->unmount();
  world.runMainQueue();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "kDAReturnBusy\n");
  EXPECT_TRUE(world.disks.isMounted(other));
}

TEST_F(CenterEnd, unclaimsTheClaimedDevicesOnly) {
  start();
  const auto stick = plugUSB("STICK");
  const auto other = plugUSB("OTHER");
  const auto device = listed(0);
  device->claim();
  world.disks.claim(other);
  center.reset();
  EXPECT_FALSE(device->claimed());
  EXPECT_EQ(world.disks.claims(stick), 0);
  EXPECT_EQ(world.disks.claims(other), 1);
  EXPECT_THAT(events, ElementsAre(kMounted, kMounted, "claim", "unclaim"));
}

TEST_F(CenterEnd, leavesTheObserverOfReloadsWithNothingToDo) {
  start();
  plugUSB("STICK");
  center.reset();
  post(kReloaded);
  EXPECT_THAT(events, ElementsAre(kMounted));
  EXPECT_EQ(world.disks.liveSessionCount(), 0);
}

TEST_F(CenterEnd, endsTheReportsEvenThoseUnderWay) {
  start();
  const auto stick = world.disks.plugUSB("STICK");
  center.reset();
  world.runMainQueue();
  pull(stick);
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(CenterEnd, leavesDevicesToThoseWhoHoldThem) {
  start();
  const auto disk = plugUSB("STICK");
  const auto device = listed();
  center.reset();
  device->unmount();
  world.runMainQueue();
  EXPECT_EQ(device->name(), "STICK");
  EXPECT_FALSE(world.disks.isMounted(disk));
}

}  // namespace
}  // namespace tests::devices
