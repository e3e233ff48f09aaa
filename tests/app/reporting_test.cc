// What the engine tells the agent: volumes held and let go, the menu kept current, failures shown.

#include "tests/app/agent_test.h"

namespace tests::app {
namespace {

using ::testing::IsEmpty;
using ::testing::StartsWith;

using BackupBegin = AgentTest;
using BackupFinish = AgentTest;
using RestoreBegin = AgentTest;
using FailureReport = AgentTest;
using SilentFailure = AgentTest;

constexpr const char* kBusy = "Stashwick is busy writing to this device. Please cancel the operation first.";

base::DomainError errorWith(const std::string& reason) { return {"ZQStashwickErrorDomain", -1, reason}; }

TEST_F(BackupBegin, claimsTheVolumeAndShowsTheRunningBackup) {
  launch();
  Gate gate(world);
  const auto stick = attachAndBackUpTo(gate, "STICK");
  EXPECT_EQ(world.disks.claims(stick), 1);
  EXPECT_EQ(firstLine(), "Backing up \"STICK\" ...");
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_EQ(world.desktop.soundsPlayed().size(), 1);  // that of the question
  gate.open();
  finish();
}

TEST_F(BackupBegin, holdsTheVolumeAgainstUnmountingUntilTheEnd) {
  launch();
  Gate gate(world);
  const auto stick = attachAndBackUpTo(gate, "STICK");
  const auto refused = world.disks.requestUnmountByOther(stick);
  ASSERT_TRUE(refused.has_value());
  EXPECT_EQ(refused->status, ports::kDAReturnBusy);
  EXPECT_EQ(refused->statusString, kBusy);
  gate.open();
  finish();
  EXPECT_EQ(world.disks.requestUnmountByOther(stick), std::nullopt);
}

TEST_F(BackupBegin, claimsEveryDeviceOfTheCentreThatCarriesTheNameAndNoOther) {
  launch();
  const auto inside =
      attach(with(world.disks.usbPartition("STICK"), ports::kDADiskDescriptionDeviceInternalKey, true));
  const auto sata =
      attach(with(world.disks.usbPartition("STICK"), ports::kDADiskDescriptionDeviceProtocolKey, "SATA"));
  const auto other = attachAndAnswer("OTHER", "Later");
  const auto lowerCase = attachAndAnswer("stick", "Later");
  Gate gate(world);
  const auto stick = attachAndBackUpTo(gate, "STICK");
  for (const auto& disk : {inside, sata, stick}) EXPECT_EQ(world.disks.claims(disk), 1);
  for (const auto& disk : {other, lowerCase}) EXPECT_EQ(world.disks.claims(disk), 0);
  gate.open();
  finish();
  for (const auto& disk : {inside, sata, stick}) EXPECT_EQ(world.disks.claims(disk), 0);
}

TEST_F(BackupBegin, tellsAComposedNameFromADecomposedOne) {
  launch();
  const auto decomposed = attachAndAnswer("Cafe\u0301", "Later");
  Gate gate(world);
  const auto composed = attachAndBackUpTo(gate, "Caf\u00e9");
  EXPECT_EQ(world.disks.claims(composed), 1);
  EXPECT_EQ(world.disks.claims(decomposed), 0);
  gate.open();
  finish();
}

TEST_F(BackupBegin, doesNotLookAtTheType) {
  launch();
  const auto stick = attachAndAnswer("STICK", "Backup");
  const auto menu = world.desktop.statusItem()->menu;
  agent->StashwickDidBegin(*agent->stashwick(), nullptr);
  EXPECT_EQ(world.disks.claims(stick), 1);
  EXPECT_NE(world.desktop.statusItem()->menu, menu);
  EXPECT_EQ(world.log.lines(), Lines{kFinished});
}

TEST_F(RestoreBegin, claimsTheVolumeUntilTheEnd) {
  launch();
  const auto stick = attachAndAnswer("STICK", "Later");
  Gate gate(world);
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    gate.pass();
    return std::string("mount failed");
  });
  agent->stashwick()->restoreWithBackupInstance(
      ZQStashwickInstance::_initWithName("STICK", "/store/x.dmg", {}, 8, false, nullptr), nullptr);
  world.runUntil([&] { return gate.held(); });
  EXPECT_EQ(world.disks.claims(stick), 1);
  EXPECT_EQ(firstLine(), "Backing up \"STICK\" ...");
  gate.open();
  finish();
  EXPECT_EQ(world.disks.claims(stick), 0);
}

TEST_F(BackupFinish, logsUnclaimsClearsTheRecordAndRebuildsTheMenu) {
  launch();
  Gate gate(world);
  const auto stick = attachAndBackUpTo(gate, "STICK");
  const auto menu = world.desktop.statusItem()->menu;
  gate.open();
  finish();
  EXPECT_EQ(world.log.lines(), Lines{kFinished});
  EXPECT_EQ(world.disks.claims(stick), 0);
  EXPECT_EQ(agent->stashwick()->backupQuery(), nullptr);
  EXPECT_NE(world.desktop.statusItem()->menu, menu);
  EXPECT_THAT(firstLine(), StartsWith("Last Backup: "));
  EXPECT_THAT(world.desktop.panels(), IsEmpty());
  EXPECT_EQ(world.desktop.soundsPlayed().size(), 1);  // that of the question
}

TEST_F(BackupFinish, withoutAMatchingDeviceOnlyLogsAndRefreshesTheMenu) {
  launch();
  const auto other = attachAndAnswer("OTHER", "Later");
  agent->deviceCenter()->availableDevices().at(0)->claim();
  Gate gate(world);
  const auto stick = attachAndBackUpTo(gate, "STICK");
  pull(stick);
  gate.open();
  finish();
  EXPECT_EQ(world.log.lines(), Lines{kFinished});
  EXPECT_EQ(world.disks.claims(other), 1);
  EXPECT_THAT(firstLine(), StartsWith("Last Backup: "));
}

TEST_F(BackupFinish, letsGoOfWhateverCarriesTheNameAtThatMoment) {
  launch();
  Gate gate(world);
  pull(attachAndBackUpTo(gate, "STICK"));
  world.desktop.answerNextAlert("Later");
  const auto replacement = attach("STICK");
  agent->deviceCenter()->availableDevices().at(0)->claim();
  ASSERT_EQ(world.disks.claims(replacement), 1);
  gate.open();
  finish();
  EXPECT_EQ(world.disks.claims(replacement), 0);
}

TEST_F(BackupFinish, letsGoOfTheVolumeEvenWhenAQuestionHoldsTheBeginCallUpUntilTheEnd) {
  const auto automatic = world.disks.usbPartition("AUTOMATIC");
  writeList({{UDID(automatic), 1}});
  launch();
  world.desktop.whileAlertIsOpen([this] {
    for (auto seen = world.changes.count(); !world.log.has(kFinished); seen = world.changes.count()) {
      ASSERT_TRUE(
          world.changes.waitForMoreThan(seen, std::chrono::steady_clock::now() + platform::fake::kPatience));
    }
  });
  world.letSecondsPass(kGrain);
  const auto disk = world.disks.plug(
      with(automatic, ports::kDAAppearanceTimeKey, world.clock.now().secondsSinceReferenceDate));
  world.disks.plugUSB("ASKED");
  world.desktop.answerNextAlert("Later");
  world.runMainQueue();
  finish();
  EXPECT_EQ(imagesRun(), 1);
  EXPECT_EQ(world.disks.claims(disk), 0);
}

TEST_F(BackupFinish, doesNotLookAtTheType) {
  launch();
  agent->StashwickDidFinish(*agent->stashwick(), nullptr);
  EXPECT_EQ(world.log.lines(), Lines{kFinished});
  EXPECT_THAT(world.desktop.panels(), IsEmpty());
}

TEST_F(FailureReport, ofABackupReadsLikeThis) {
  launch();
  attachAndAnswer("Stick", "Backup");
  agent->StashwickDidFail(*agent->stashwick(), errorWith("hdiutil: create failed - No space left on device"),
                          &ZQStashwickTypeOperationBackup);
  ASSERT_EQ(world.desktop.panels().size(), 1);
  const auto panel = world.desktop.panels()[0];
  EXPECT_EQ(panel.title, "Backup Failed");
  EXPECT_EQ(panel.text,
            "\"Stick\" could not be backed up because of the following reason:\n"
            "\n"
            "hdiutil: create failed - No space left on device\n"
            "ZQStashwickErrorDomain (Error -1)");
  EXPECT_EQ(panel.button, "OK");
}

TEST_F(FailureReport, ofARestoreReadsLikeThis) {
  launch();
  failRestore("STICK", "hdiutil: mount failed - Authentication error");
  ASSERT_EQ(world.desktop.panels().size(), 1);
  const auto panel = world.desktop.panels()[0];
  EXPECT_EQ(panel.title, "Restore Failed");
  EXPECT_EQ(panel.text,
            "\"STICK\" could not be restored because of the following reason:\n"
            "\n"
            "hdiutil: mount failed - Authentication error\n"
            "ZQStashwickErrorDomain (Error -1)");
  EXPECT_EQ(panel.button, "OK");
}

TEST_F(FailureReport, logsTheErrorAndTheType) {
  launch();
  failRestore("STICK", "mount failed");
  EXPECT_EQ(world.log.lines(), Lines{"[Stashwick] [ERROR] " + errorWith("mount failed").description() +
                                     " Operation: ZQStashwickTypeOperationRestore"});
}

TEST_F(FailureReport, isShownOnTheMainThreadWhileTheWorkerWaits) {
  launch();
  std::size_t queued = 0;
  world.desktop.whileAlertIsOpen([&] { queued = agent->stashwick()->operationQueue()->operationCount(); });
  failRestore("STICK", "mount failed");
  ASSERT_EQ(world.desktop.panels().size(), 1);
  EXPECT_TRUE(world.desktop.panels()[0].onMainThread);
  EXPECT_EQ(queued, 3);  // nothing is cancelled before the panel is gone
  EXPECT_EQ(imagesRun(), 1);
  EXPECT_FALSE(agent->stashwick()->hasOperations());
}

TEST_F(FailureReport, comesAfterTheVolumeWasLetGoAndBeforeTheRecordIsCleared) {
  launch();
  const auto stick = attachAndAnswer("STICK", "Later");
  // Two runs are queued, so each panel comes twice; the first counts.
  std::optional<int> claims;
  std::optional<bool> hasRecord;
  world.desktop.whileAlertIsOpen([&] {
    if (!claims) claims = world.disks.claims(stick);
    if (!hasRecord) hasRecord = agent->stashwick()->backupQuery() != nullptr;
  });
  world.tools.answerTool(kImageTool, "create failed");
  for (int i = 0; i < 2; ++i) agent->_backupDevice(agent->devices().at(0));
  finish();
  ASSERT_FALSE(world.desktop.panels().empty());
  EXPECT_EQ(world.desktop.panels()[0].title, "Backup Failed");
  EXPECT_EQ(claims, 0);
  EXPECT_EQ(hasRecord, true);
  EXPECT_EQ(agent->stashwick()->backupQuery(), nullptr);
}

TEST_F(FailureReport, rebuildsTheMenuWhileTheCancelledStepsAreStillQueued) {
  launch();
  const auto before = world.desktop.statusItem()->menu;
  failRestore("STICK", "mount failed");
  EXPECT_NE(world.desktop.statusItem()->menu, before);
  EXPECT_EQ(firstLine(), "Backing up \"STICK\" ...");
  agent->_reloadStatusMenu();
  EXPECT_EQ(firstLine(), "Last Backup: Never");
}

TEST_F(FailureReport, withAnEqualTextThatIsNotTheConstantShowsNothing) {
  launch();
  const auto stick = attachAndAnswer("STICK", "Backup");
  agent->deviceCenter()->availableDevices().at(0)->claim();
  const auto menu = world.desktop.statusItem()->menu;
  for (const std::string& copy : {ZQStashwickTypeOperationBackup, ZQStashwickTypeOperationRestore}) {
    agent->StashwickDidFail(*agent->stashwick(), errorWith("x failed"), &copy);
    EXPECT_EQ(world.log.lines().back(),
              "[Stashwick] [ERROR] " + errorWith("x failed").description() + " Operation: " + copy);
  }
  EXPECT_THAT(world.desktop.panels(), IsEmpty());
  EXPECT_EQ(world.disks.claims(stick), 0);
  EXPECT_NE(world.desktop.statusItem()->menu, menu);
}

TEST_F(FailureReport, withoutATypeIsLoggedAndOtherwiseSilent) {
  launch();
  agent->StashwickDidFail(*agent->stashwick(), errorWith("x failed"), nullptr);
  EXPECT_EQ(world.log.lines(),
            Lines{"[Stashwick] [ERROR] " + errorWith("x failed").description() + " Operation: (null)"});
  EXPECT_THAT(world.desktop.panels(), IsEmpty());
}

TEST_F(FailureReport, readsPercentSignsOfTheReasonAsAFormatAndStaysHarmless) {
  launch();
  failRestore("STICK", "failed at 100%% of %s and %@ and %n, 5%");
  EXPECT_EQ(world.desktop.panels().at(0).text,
            "\"STICK\" could not be restored because of the following reason:\n\n"
            "failed at 100% of %s and %@ and %n, 5%\n"
            "ZQStashwickErrorDomain (Error -1)");
}

TEST_F(FailureReport, titleComesFromTheStringTableAndTheRestDoesNot) {
  world.bundle.setLocalizedString("Backup Failed", "Sicherung gescheitert");
  world.bundle.setLocalizedString("Restore Failed", "Wiederherstellung gescheitert");
  world.bundle.setLocalizedString("OK", "In Ordnung");
  world.bundle.setLocalizedString(
      "\"%@\" could not be restored because of the following reason:\n\n%@\n%@ (Error %li)", "Nicht so");
  launch();
  failRestore("STICK", "mount failed");
  agent->StashwickDidFail(*agent->stashwick(), errorWith("x"), &ZQStashwickTypeOperationBackup);
  ASSERT_EQ(world.desktop.panels().size(), 2);
  EXPECT_EQ(world.desktop.panels()[0].title, "Wiederherstellung gescheitert");
  EXPECT_THAT(world.desktop.panels()[0].text, StartsWith("\"STICK\" could not be restored"));
  EXPECT_EQ(world.desktop.panels()[0].button, "OK");
  EXPECT_EQ(world.desktop.panels()[1].title, "Sicherung gescheitert");
}

TEST_F(FailureReport, namesAVolumeThatIsNoLongerAttached) {
  launch();
  pull(attachAndAnswer("STICK", "Later"));
  failRestore("STICK", "mount failed");
  EXPECT_THAT(world.desktop.panels().at(0).text, StartsWith("\"STICK\" could not be restored"));
}

TEST_F(FailureReport, isNotFollowedByARetry) {
  launch();
  failRestore("STICK", "mount failed");
  world.letSecondsPass(600);
  finish();
  EXPECT_EQ(imagesRun(), 1);
  EXPECT_EQ(world.desktop.panels().size(), 1);
}

TEST_F(SilentFailure, leavesTheVolumeClaimedAndTheMenuLineUntilTheNextRebuild) {
  launch();
  Gate gate(world);
  const auto stick = attachAndBackUpTo(gate, "STICK", "hdiutil: create failed - No space left on device\n");
  gate.open();
  finish();
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_THAT(world.desktop.panels(), IsEmpty());
  EXPECT_EQ(world.disks.claims(stick), 1);
  EXPECT_EQ(firstLine(), "Backing up \"STICK\" ...");
  agent->_reloadStatusMenu();
  EXPECT_THAT(firstLine(), StartsWith("Last Backup: "));
}

TEST_F(SilentFailure, isReportedAtTheNextStartWhichIsCancelled) {
  launch();
  world.tools.answerTool(kImageTool, "hdiutil: create failed - No space left on device\n");
  const auto stick = attachAndAnswer("STICK", "Backup");
  ASSERT_THAT(world.desktop.panels(), IsEmpty());
  world.desktop.answerNextAlert("Backup");
  world.desktop.click("Backup \"STICK\" now ...");
  finish();
  ASSERT_FALSE(world.desktop.panels().empty());
  EXPECT_EQ(world.desktop.panels()[0].title, "Backup Failed");
  EXPECT_THAT(world.desktop.panels()[0].text, ::testing::HasSubstr("No space left on device"));
  EXPECT_EQ(imagesRun(), 1);
  EXPECT_EQ(world.disks.claims(stick), 0);
  EXPECT_EQ(agent->stashwick()->backupQuery(), nullptr);
}

}  // namespace
}  // namespace tests::app
