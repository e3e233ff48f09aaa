// A restore: its steps and their order, the password, and what stops it.

#include "tests/engine/engine_test.h"

namespace tests::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using namespace std::string_literals;

using Restore = EngineTest;
using RestorePassword = EngineTest;
using EraseInstance = EngineTest;

constexpr const char* kCopyTool = "/usr/bin/rsync";

TEST_F(Restore, mountsErasesCopiesAndUnmountsInThisOrder) {
  restore();
  const auto runs = world.tools.runs();
  ASSERT_EQ(runs.size(), 4);
  EXPECT_EQ(runs[0].launchPath, "/usr/bin/hdiutil");
  EXPECT_THAT(runs[0].arguments, ElementsAre("mount", "/store/STICK/x.dmg"));
  EXPECT_EQ(runs[1].launchPath, "/bin/rm");
  EXPECT_THAT(runs[1].arguments, ElementsAre("-rf", "/Volumes/STICK"));
  EXPECT_EQ(runs[2].launchPath, "/usr/bin/rsync");
  EXPECT_THAT(runs[2].arguments, ElementsAre("-av", "/Volumes/STICK-Backup/", "/Volumes/STICK"));
  EXPECT_EQ(runs[3].launchPath, "/usr/bin/hdiutil");
  EXPECT_THAT(runs[3].arguments, ElementsAre("unmount", "/Volumes/STICK-Backup/"));
}

TEST_F(Restore, capturesTheErrorsOfTheMountAndBothOutputsOfTheCopyOnly) {
  restore();
  const auto runs = world.tools.runs();
  ASSERT_EQ(runs.size(), 4);
  EXPECT_EQ(runs[0].capture, Capture::standardError);
  EXPECT_EQ(runs[1].capture, Capture::none);
  EXPECT_EQ(runs[2].capture, Capture::bothOutputs);
  EXPECT_EQ(runs[3].capture, Capture::none);
}

TEST_F(Restore, attachesStandardInputToTheMountOnly) {
  restore(password("secret"));
  const auto runs = world.tools.runs();
  ASSERT_EQ(runs.size(), 4);
  EXPECT_TRUE(runs[0].standardInput.has_value());
  for (std::size_t i = 1; i < 4; ++i) EXPECT_EQ(runs[i].standardInput, std::nullopt) << i;
}

TEST_F(Restore, beginsOnTheMainThreadAndFinishesOnTheWorkerAfterTheUnmount) {
  std::vector<std::string> toldBefore = {"nothing recorded"};
  world.tools.whenToolRuns(kImageTool, [&](const auto& run) {
    if (run.hasArgument("unmount")) toldBefore = listener->names();
    return std::string();
  });
  restore();
  EXPECT_THAT(toldBefore, IsEmpty());
  ASSERT_EQ(listener->calls().size(), 2);
  for (const auto& call : listener->calls()) EXPECT_EQ(call.onMainThread, call.what == "begin") << call.what;
}

TEST_F(Restore, beginCallCarriesTheTypeOfTheMomentAtWhichItRuns) {
  engine->restoreWithBackupInstance(instance(), nullptr);
  engine->operationQueue()->waitUntilAllOperationsAreFinished();
  startBackup();
  engine->operationQueue()->waitUntilAllOperationsAreFinished();
  listener->forget();
  world.runMainQueue();
  const auto calls = listener->calls();
  ASSERT_EQ(calls.size(), 2);
  EXPECT_EQ(calls[0].what, "begin");
  EXPECT_EQ(calls[0].type, &ZQStashwickTypeOperationBackup);
}

TEST_F(Restore, namesVolumeAndTypeAtOnce) {
  Gate gate(world);
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    gate.pass();
    return std::string();
  });
  startBackup();
  waitAt(gate);
  engine->restoreWithBackupInstance(instance("OTHER"), nullptr);
  EXPECT_EQ(engine->currentVolume(), "OTHER");
  EXPECT_EQ(engine->currentOperationType(), &ZQStashwickTypeOperationRestore);
  gate.open();
  settle();
}

TEST_F(Restore, debugModeIsSeenByTheUnmountOnly) {
  engine->setDebugMode(true);
  restore();
  const auto runs = world.tools.runs();
  ASSERT_EQ(runs.size(), 4);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_FALSE(runs[i].hasArgument("-verbose")) << i;
  EXPECT_THAT(runs[3].arguments, ElementsAre("unmount", "/Volumes/STICK-Backup/", "-verbose"));
  EXPECT_THAT(world.log.lines(),
              ElementsAre("[DEBUG] _restoreDiscImageWithOperation:andBackupInstance: - NSTask Arguments: (\n"
                          "    unmount,\n"
                          "    \"/Volumes/STICK-Backup/\",\n"
                          "    \"-verbose\"\n"
                          ")"));
}

TEST_F(Restore, nothingIsLoggedWithoutDebugMode) {
  restore();
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(Restore, failedMountErasesNothingAndEndsTheRun) {
  world.tools.answerTool(kImageTool, "hdiutil: mount failed - Authentication error\n");
  restore();
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
  EXPECT_THAT(listener->names(), ::testing::UnorderedElementsAre("begin", "fail"));
  EXPECT_TRUE(engine->hasAuthenticationFailure());
  for (const auto& call : listener->calls()) EXPECT_EQ(call.type, &ZQStashwickTypeOperationRestore);
}

TEST_F(Restore, goesOnWhenTheMountMentionsAuthOnly) {
  world.tools.answerTool(kImageTool, "Authenticated.\n");
  restore();
  EXPECT_EQ(steps(), (Strings{"hdiutil mount", "rm", "rsync", "hdiutil unmount"}));
  EXPECT_TRUE(engine->hasAuthenticationFailure());
  EXPECT_THAT(listener->names(), ::testing::Contains("finish"));
}

TEST_F(Restore, failedCopyLeavesTheImageMounted) {
  world.tools.answerTool(kCopyTool, "rsync: mkstemp failed: Read-only file system (30)\n");
  restore();
  EXPECT_EQ(steps(), (Strings{"hdiutil mount", "rm", "rsync"}));
  EXPECT_THAT(listener->names(), ::testing::UnorderedElementsAre("begin", "fail"));
}

TEST_F(Restore, outcomeIsJudgedByTheCopyAndNotByTheUnmount) {
  world.tools.whenToolRuns(kImageTool, [](const auto& run) {
    return run.hasArgument("unmount") ? "unmount failed - busy"s : std::string();
  });
  world.tools.answerTool(kCopyTool, "sent 12 bytes\n");
  restore();
  EXPECT_THAT(listener->names(), ::testing::UnorderedElementsAre("begin", "finish"));
}

TEST_F(Restore, runsTheSameWhenTheVolumeIsNotMounted) {
  world.files.removeVolume("STICK");
  restore();
  EXPECT_EQ(steps(), (Strings{"hdiutil mount", "rm", "rsync", "hdiutil unmount"}));
  EXPECT_THAT(listener->names(), ::testing::UnorderedElementsAre("begin", "finish"));
}

TEST_F(Restore, keepsTheStoredBackups) {
  backUp();
  engine->restoreWithBackupInstance(engine->backupsForVolume("STICK").back(), nullptr);
  settle();
  EXPECT_EQ(engine->numberOfBackupsForVolume("STICK"), 1);
  EXPECT_THAT(world.tools.runs().at(1).arguments, ElementsAre("mount", path(".dmg")));
}

TEST_F(RestorePassword, givenIsUsedAndTheKeychainNeverRead) {
  storePassword(world, "stored");
  const int before = world.keychain.calls();
  restore(password("given"));
  EXPECT_EQ(world.tools.runs().at(0).standardInput, "given\0\n"s);
  EXPECT_EQ(world.keychain.calls(), before);
}

TEST_F(RestorePassword, givenEmptyIsUsedToo) {
  storePassword(world, "stored");
  const int before = world.keychain.calls();
  restore(password(""));
  EXPECT_EQ(world.tools.runs().at(0).standardInput, "\0\n"s);
  EXPECT_EQ(world.keychain.calls(), before);
}

TEST_F(RestorePassword, notGivenIsReadFromTheKeychain) {
  storePassword(world, "stored");
  restore();
  EXPECT_EQ(world.tools.runs().at(0).standardInput, "stored\0\n"s);
  EXPECT_TRUE(world.tools.pipes().at(0).writingEndClosed);
}

TEST_F(RestorePassword, missingAltogetherAttachesAPipeThatHoldsNothing) {
  restore();
  EXPECT_EQ(world.tools.runs().at(0).standardInput, "");
  EXPECT_FALSE(world.tools.pipes().at(0).writingEndClosed);
}

TEST_F(EraseInstance, deletesEverythingOnTheVolume) {
  EXPECT_TRUE(engine->_eraseInstance(instance().get()));
  ASSERT_EQ(world.tools.runs().size(), 1);
  EXPECT_EQ(world.tools.runs()[0].launchPath, "/bin/rm");
  EXPECT_THAT(world.tools.runs()[0].arguments, ElementsAre("-rf", "/Volumes/STICK"));
}

TEST_F(EraseInstance, isTrueEvenWhenTheToolFails) {
  world.tools.answerTool("/bin/rm", "rm: failed");
  EXPECT_TRUE(engine->_eraseInstance(instance().get()));
  world.tools.removeTool("/bin/rm");
  EXPECT_TRUE(engine->_eraseInstance(instance().get()));
}

TEST_F(EraseInstance, withoutAnInstanceNamesNoVolumeAndIsTrue) {
  EXPECT_TRUE(engine->_eraseInstance(nullptr));
  EXPECT_THAT(world.tools.runs().at(0).arguments, ElementsAre("-rf", "/Volumes/(null)"));
}

}  // namespace
}  // namespace tests::engine
