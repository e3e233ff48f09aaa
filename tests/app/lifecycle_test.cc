// Start-up, the list of devices, the detection of the main application, and the end.

#include <atomic>
#include <thread>

#include "tests/app/agent_test.h"

namespace tests::app {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using AgentSettings = AgentTest;
using AgentLaunch = AgentTest;
using DeviceList = AgentTest;
using MainApplication = AgentTest;
using AgentEnd = AgentTest;

constexpr const char* kDefaults =
    "<plist version=\"1.0\"><dict><key>ZQCreatesAutomaticBackups</key><true/></dict></plist>";

TEST_F(AgentSettings, areSeededFromTheDefaultsResource) {
  world.bundle.addResource("Defaults", "plist", kDefaults);
  ZQAgentAppDelegate::initialize(world.host());
  EXPECT_TRUE(agent->_createsAutomaticBackups());
  EXPECT_THAT(world.defaults.userValues(), IsEmpty());
}

TEST_F(AgentSettings, ofTheUserComeBeforeTheSeed) {
  world.bundle.addResource("Defaults", "plist", kDefaults);
  world.defaults.set(false, "ZQCreatesAutomaticBackups");
  ZQAgentAppDelegate::initialize(world.host());
  EXPECT_FALSE(agent->_createsAutomaticBackups());
}

TEST_F(AgentSettings, areNotSeededWithoutTheResource) {
  ZQAgentAppDelegate::initialize(world.host());
  EXPECT_FALSE(agent->_createsAutomaticBackups());
  EXPECT_EQ(world.defaults.stringForKey("ZQStashwickBackupEncryption"), std::nullopt);
}

TEST_F(AgentLaunch, beforeItThereIsNothing) {
  EXPECT_THAT(agent->devices(), IsEmpty());
  EXPECT_EQ(agent->deviceCenter(), nullptr);
  EXPECT_EQ(agent->stashwick(), nullptr);
  EXPECT_EQ(agent->statusItem(), nullptr);
  EXPECT_EQ(world.desktop.statusItem(), std::nullopt);
}

TEST_F(AgentLaunch, createsTheCentreTheEngineAndTheStatusItem) {
  launch();
  ASSERT_NE(agent->deviceCenter(), nullptr);
  ASSERT_NE(agent->stashwick(), nullptr);
  EXPECT_EQ(agent->stashwick()->delegate(), agent);
  EXPECT_EQ(agent->deviceCenter()->delegate(), nullptr);
  EXPECT_NE(agent->statusItem(), nullptr);
  EXPECT_NE(agent->stashwick()->operationQueue(), nullptr);
}

TEST_F(AgentLaunch, menuRebuildBeforeTheStatusItemIsThereDoesNothing) {
  agent->_reloadStatusMenu();
  EXPECT_EQ(world.desktop.statusItem(), std::nullopt);
}

TEST_F(AgentLaunch, doesNotAsk) {
  launch();
  EXPECT_THAT(world.desktop.alerts(), IsEmpty());
  EXPECT_THAT(world.desktop.soundsPlayed(), IsEmpty());
  EXPECT_EQ(world.desktop.activations(), 0);
}

TEST_F(DeviceList, holdsAVolumeThatWasAttachedBeforeTheStartWithoutAskingAboutIt) {
  world.disks.plugUSB("STICK");
  world.letSecondsPass(kGrain);
  launch();
  EXPECT_THAT(deviceNames(), ElementsAre("STICK"));
  EXPECT_NE(world.desktop.item("Backup \"STICK\" now ..."), nullptr);
  EXPECT_THAT(world.desktop.alerts(), IsEmpty());
}

TEST_F(DeviceList, holdsAVolumeThatWasAttachedBeforeTheStartWithoutBackingItUpAutomatically) {
  const auto stick = world.disks.usbPartition("STICK");
  writeList({{UDID(stick), 1}});
  world.disks.plug(stick);
  world.letSecondsPass(kGrain);
  launch();
  finish();
  EXPECT_THAT(deviceNames(), ElementsAre("STICK"));
  EXPECT_EQ(imagesRun(), 0);
}

// The launch is 21 seconds after a step of the connection dates, so the next step is 43 seconds away and
// arrivals of the first 11 seconds are read as that earlier step.
TEST_F(DeviceList, volumeAttachedShortlyAfterTheLaunchIsListedButNotAskedAbout) {
  launch();
  world.letSecondsPass(10);
  world.disks.plugUSB("STICK");
  world.runMainQueue();
  EXPECT_THAT(deviceNames(), ElementsAre("STICK"));
  EXPECT_THAT(world.desktop.alerts(), IsEmpty());
}

TEST_F(DeviceList, volumeAttachedShortlyBeforeTheLaunchCanBeAskedAbout) {
  world.letSecondsPass(12);
  world.disks.plugUSB("STICK");
  world.letSecondsPass(5);
  world.desktop.answerNextAlert("Later");
  launch();
  EXPECT_EQ(world.desktop.alerts().size(), 1);
}

TEST_F(DeviceList, volumeConnectedAtTheVeryMomentOfTheLaunchIsNotAskedAbout) {
  world.letSecondsPass(43);  // exactly a step of the connection dates
  world.disks.plugUSB("STICK");
  launch();
  ASSERT_THAT(deviceNames(), ElementsAre("STICK"));
  ASSERT_EQ(agent->devices()[0]->connectionDate(), world.clock.now());
  EXPECT_THAT(world.desktop.alerts(), IsEmpty());
}

TEST_F(DeviceList, volumeAttachedAfterTheLaunchIsListedAndAskedAbout) {
  launch();
  attachAndAnswer("STICK", "Later");
  EXPECT_THAT(deviceNames(), ElementsAre("STICK"));
  EXPECT_EQ(world.desktop.alerts().size(), 1);
}

TEST_F(DeviceList, leavesOtherProtocolsOut) {
  launch();
  for (const char* protocol : {"SATA", "ATA", "Virtual Interface", "Thunderbolt", "usb"}) {
    attach(with(world.disks.usbPartition(protocol), ports::kDADiskDescriptionDeviceProtocolKey, protocol));
  }
  EXPECT_THAT(agent->devices(), IsEmpty());
  EXPECT_THAT(world.desktop.alerts(), IsEmpty());
}

TEST_F(DeviceList, leavesInternalUSBVolumesOut) {
  launch();
  attach(with(world.disks.usbPartition("INSIDE"), ports::kDADiskDescriptionDeviceInternalKey, true));
  EXPECT_THAT(agent->devices(), IsEmpty());
  EXPECT_THAT(world.desktop.alerts(), IsEmpty());
}

TEST_F(DeviceList, keepsTheOrderOfReport) {
  launch();
  attachAndAnswer("B", "Later");
  attachAndAnswer("A", "Later");
  EXPECT_THAT(deviceNames(), ElementsAre("B", "A"));
}

TEST_F(DeviceList, forgetsAnUnmountedVolumeAndRebuildsTheMenu) {
  launch();
  const auto stick = attachAndAnswer("STICK", "Later");
  pull(stick);
  EXPECT_THAT(agent->devices(), IsEmpty());
  EXPECT_EQ(world.desktop.item("Backup \"STICK\" now ..."), nullptr);
  EXPECT_NE(world.desktop.item("No Devices Connected"), nullptr);
}

TEST_F(DeviceList, sameDeviceMountedTwiceIsListedTwiceAndOneUnmountRemovesBoth) {
  launch();
  const auto stick = attachAndAnswer("STICK", "Later");
  attachAndAnswer("OTHER", "Later");
  world.desktop.answerAlertsWith(
      [](const auto&) { return ports::AlertAnswer{.returnCode = ports::kAlertSecondButtonReturn}; });
  world.notifications.post(ZQRemovableDeviceCenterDataReloadedNotification);
  world.runMainQueue();
  EXPECT_THAT(deviceNames(), ElementsAre("STICK", "OTHER", "STICK", "OTHER"));
  pull(stick);
  EXPECT_THAT(deviceNames(), ElementsAre("OTHER", "OTHER"));
}

TEST_F(DeviceList, staysWhenAVolumeGoesThatIsNotInIt) {
  launch();
  attachAndAnswer("STICK", "Later");
  // Of the same name, but internal: not equal to the listed one.
  const auto inside =
      attach(with(world.disks.usbPartition("STICK"), ports::kDADiskDescriptionDeviceInternalKey, true));
  pull(inside);
  EXPECT_THAT(deviceNames(), ElementsAre("STICK"));
}

TEST_F(DeviceList, everyUnmountRebuildsTheMenuWhateverTheDevice) {
  launch();
  const auto disk =
      attach(with(world.disks.usbPartition("DISK"), ports::kDADiskDescriptionDeviceProtocolKey, "SATA"));
  const auto before = world.desktop.statusItem()->menu;
  pull(disk);
  EXPECT_NE(world.desktop.statusItem()->menu, before);
}

TEST_F(MainApplication, runningUnderItsVeryNameKeepsTheAgentFromTheBackground) {
  world.user.setRunningBundleNames({"Finder", std::nullopt, "Stashwick", "Terminal"});
  EXPECT_FALSE(agent->canRunInBackground());
}

TEST_F(MainApplication, isNotTakenForAnotherName) {
  world.user.setRunningBundleNames({"stashwick", "Stashwick Agent", "StashwickHelper", std::nullopt, ""});
  EXPECT_TRUE(agent->canRunInBackground());
}

TEST_F(MainApplication, countsAsNotRunningWhenNoProcessCanBeListed) {
  world.user.setRunningBundleNames({});
  EXPECT_TRUE(agent->canRunInBackground());
}

TEST_F(AgentEnd, beforeTheLaunchIsHarmless) {
  agent->applicationWillTerminate();
  agent.reset();
  EXPECT_EQ(world.desktop.statusItem(), std::nullopt);
}

TEST_F(AgentEnd, whenIdleTakesTheStatusItemAwayAndLeavesLaterArrivalsAlone) {
  launch();
  attachAndAnswer("STICK", "Later");
  const std::weak_ptr<ZQAgentAppDelegate> watched = agent;
  agent->applicationWillTerminate();
  agent.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(world.desktop.statusItem(), std::nullopt);
  attach("OTHER");
  world.notifications.post(ZQRemovableDeviceCenterDataReloadedNotification);
  world.runMainQueue();
  EXPECT_EQ(world.desktop.alerts().size(), 1);
}

TEST_F(AgentEnd, withoutTerminationIsHarmlessWhenIdle) {
  launch();
  attachAndAnswer("STICK", "Backup");
  agent.reset();
  EXPECT_EQ(world.desktop.statusItem(), std::nullopt);
}

TEST_F(AgentEnd, leavesNobodyToAnswerAClickInAMenuThatIsStillOpen) {
  launch();
  const auto menu = agent->_statusBarMenu();
  const auto& automatic = *menu->items.at(3);
  ASSERT_TRUE(world.desktop.isEnabled(automatic));
  agent.reset();
  EXPECT_FALSE(world.desktop.isEnabled(automatic));
}

TEST_F(AgentEnd, letsGoOfAClaimedVolume) {
  launch();
  const auto stick = attachAndAnswer("STICK", "Later");
  agent->deviceCenter()->availableDevices().at(0)->claim();
  ASSERT_EQ(world.disks.claims(stick), 1);
  agent.reset();
  EXPECT_EQ(world.disks.claims(stick), 0);
}

TEST_F(AgentEnd, forgetsAPostponedBackup) {
  world.user.setRunningBundleNames({"Stashwick"});
  launch();
  attachAndAnswer("STICK", "Backup");
  agent->applicationWillTerminate();
  agent.reset();
  world.user.setRunningBundleNames({});
  world.letSecondsPass(60);
  EXPECT_EQ(imagesRun(), 0);
  EXPECT_EQ(world.log.lines().size(), 1);
}

TEST_F(AgentEnd, terminationWhileAToolRunsWaitsForItAndTellsNothingMore) {
  launch();
  Gate gate(world);
  attachAndBackUpTo(gate, "STICK");
  world.closeMainQueue();
  std::thread endsTheTool([&gate, dying = agent->stashwick()] {
    while (dying->delegate()) std::this_thread::yield();
    gate.open();
  });
  agent->applicationWillTerminate();
  endsTheTool.join();
  EXPECT_EQ(agent->stashwick(), nullptr);
  EXPECT_EQ(imagesRun(), 1);
  EXPECT_FALSE(world.log.has(kFinished));
  agent.reset();
  EXPECT_EQ(world.desktop.statusItem(), std::nullopt);
}

TEST_F(AgentEnd, terminationDoesNotWaitForAFailurePanelThatCanNoLongerBeShown) {
  launch();
  world.tools.answerTool(kImageTool, "mount failed");
  agent->stashwick()->restoreWithBackupInstance(
      ZQStashwickInstance::_initWithName("STICK", "/store/x.dmg", {}, 8, false, nullptr), nullptr);
  // The begin call and the panel both wait for the main thread, which never comes to them.
  for (auto seen = world.changes.count(); world.mainQueue.waiting() < 2; seen = world.changes.count()) {
    ASSERT_TRUE(
        world.changes.waitForMoreThan(seen, std::chrono::steady_clock::now() + platform::fake::kPatience));
  }
  world.closeMainQueue();
  agent->applicationWillTerminate();
  EXPECT_EQ(agent->stashwick(), nullptr);
  EXPECT_THAT(world.desktop.panels(), IsEmpty());
}

}  // namespace
}  // namespace tests::app
