// The engine itself: its fields, its queue, the judging of texts, what its delegate is told, cancelling and
// destruction.

#include <thread>

#include "tests/engine/engine_test.h"

namespace tests::engine {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

using Engine = EngineTest;
using EngineCalls = EngineTest;
using EngineJudgement = EngineTest;
using EngineCancel = EngineTest;
using EngineDestruction = EngineTest;

constexpr const char* kNoSpace = "hdiutil: create failed - No space left on device\n";

TEST_F(Engine, constantsReadAsTheirNames) {
  EXPECT_EQ(ZQStashwickTypeOperationBackup, "ZQStashwickTypeOperationBackup");
  EXPECT_EQ(ZQStashwickTypeOperationRestore, "ZQStashwickTypeOperationRestore");
  EXPECT_EQ(ZQStashwickErrorDomain, "ZQStashwickErrorDomain");
}

TEST_F(Engine, startsIdleWithEverythingOff) {
  EXPECT_NE(engine->operationQueue(), nullptr);
  EXPECT_FALSE(engine->hasOperations());
  EXPECT_EQ(engine->backupQuery(), nullptr);
  EXPECT_EQ(engine->currentOperationType(), nullptr);
  EXPECT_EQ(engine->currentVolume(), std::nullopt);
  EXPECT_FALSE(engine->hasAuthenticationFailure());
  EXPECT_FALSE(engine->erasesDataAfterBackup());
  EXPECT_FALSE(engine->debugMode());
}

TEST_F(Engine, nullRecordWhileIdleReleasesTheRecordAndQueuesNothing) {
  backUp();
  const std::weak_ptr<ZQStashwickQueryResult> record = engine->backupQuery();
  ASSERT_FALSE(record.expired());
  listener->forget();
  engine->setBackupQuery(nullptr);
  EXPECT_EQ(engine->backupQuery(), nullptr);
  EXPECT_TRUE(record.expired());
  EXPECT_FALSE(engine->hasOperations());
  settle();
  EXPECT_THAT(listener->names(), IsEmpty());
  EXPECT_EQ(world.tools.runs().size(), 1);
}

TEST_F(Engine, holdsTheRecordOfTheBackup) {
  const auto record = scanOf("STICK");
  engine->setBackupQuery(record);
  EXPECT_EQ(engine->backupQuery(), record);
  settle();
}

TEST_F(Engine, hasOperationsWhileAStepRuns) {
  Gate gate(world);
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    gate.pass();
    return std::string();
  });
  startBackup();
  waitAt(gate);
  EXPECT_TRUE(engine->hasOperations());
  EXPECT_EQ(engine->currentVolume(), "STICK");
  EXPECT_EQ(engine->currentOperationType(), &ZQStashwickTypeOperationBackup);
  gate.open();
  settle();
  EXPECT_FALSE(engine->hasOperations());
}

TEST_F(Engine, namesTheVolumeByTheLastComponentOfItsMountPoint) {
  world.files.write("/Volumes/MY STICK/a", "a");
  backUp("MY STICK");
  EXPECT_EQ(engine->currentVolume(), "MY STICK");
}

TEST_F(Engine, runsStepsOneAtATimeOnAWorkerThread) {
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  std::atomic<bool> onMainThread = false;
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    most = std::max<int>(most, ++running);
    if (world.mainQueue.isMainThread()) onMainThread = true;
    --running;
    return std::string();
  });
  startBackup();
  startBackup();
  settle();
  EXPECT_EQ(world.tools.runs().size(), 2);
  EXPECT_EQ(most, 1);
  EXPECT_FALSE(onMainThread);
}

TEST_F(Engine, madeWithARecordHasNoQueueAndNeverRunsTheBackup) {
  const auto record = scanOf("STICK");
  const auto queueless = ZQStashwick::initWithBackupQuery(world.host(), record);
  queueless->setDelegate(listener);
  EXPECT_EQ(queueless->operationQueue(), nullptr);
  EXPECT_EQ(queueless->backupQuery(), record);
  EXPECT_FALSE(queueless->hasOperations());
  queueless->setBackupQuery(record);
  queueless->restoreWithBackupInstance(instance(), password("x"));
  queueless->cancel();
  queueless->observeValueForKeyPath("operations", nullptr);
  world.runMainQueue();
  EXPECT_THAT(world.tools.runs(), IsEmpty());
  EXPECT_THAT(listener->names(), IsEmpty());
}

TEST_F(EngineCalls, backupBeginsOnTheMainThreadAndFinishesOnTheWorker) {
  backUp();
  const auto calls = listener->calls();
  ASSERT_EQ(calls.size(), 2);
  // The order of the two is not fixed: the begin call waits for the main thread.
  for (const auto& call : calls) EXPECT_EQ(call.onMainThread, call.what == "begin") << call.what;
  EXPECT_THAT(listener->names(), ::testing::UnorderedElementsAre("begin", "finish"));
}

TEST_F(EngineCalls, passTheVeryConstantOfTheType) {
  backUp();
  EXPECT_THAT(listener->calls(), Each(Field(&Told::type, &ZQStashwickTypeOperationBackup)));
  listener->forget();
  restore();
  EXPECT_EQ(listener->calls().size(), 2);
  EXPECT_THAT(listener->calls(), Each(Field(&Told::type, &ZQStashwickTypeOperationRestore)));
}

TEST_F(EngineCalls, beginIsPostedBeforeTheToolRuns) {
  std::size_t waiting = 0;
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    waiting = world.mainQueue.waiting();
    return std::string();
  });
  startBackup();
  engine->operationQueue()->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(waiting, 1);
  EXPECT_THAT(listener->names(), ElementsAre("finish"));
  world.runMainQueue();
  EXPECT_THAT(listener->names(), ElementsAre("finish", "begin"));
}

TEST_F(EngineCalls, beginComesAndTheVolumeIsNamedWhileTheScanStillRuns) {
  world.files.holdEnumerationAt("/Volumes/STICK/b");
  startBackup();
  world.runUntil([&] { return !listener->calls().empty(); });
  EXPECT_THAT(listener->names(), ElementsAre("begin"));
  EXPECT_EQ(engine->currentVolume(), "STICK");
  EXPECT_EQ(engine->currentOperationType(), &ZQStashwickTypeOperationBackup);
  EXPECT_THAT(world.tools.runs(), IsEmpty());
  world.files.releaseEnumeration();
  settle();
  EXPECT_THAT(listener->names(), ElementsAre("begin", "finish"));
}

TEST_F(EngineCalls, finishComesWhenTheQueueIsEmpty) {
  backUp();
  for (const auto& call : listener->calls()) EXPECT_FALSE(call.hadOperations) << call.what;
}

TEST_F(EngineCalls, finishMayStartTheNextRunWhichIsJudgedOnItsOwn) {
  world.files.addVolume("OTHER");
  listener->whenItFinishes = [this] {
    if (engine->currentVolume() == "STICK") startBackup("OTHER");
  };
  backUp();
  EXPECT_EQ(world.tools.runs().size(), 2);
  EXPECT_EQ(std::ranges::count(listener->names(), "finish"), 2);
  listener->forget();
  world.tools.answerTool(kImageTool, "mount failed");
  restore();
  EXPECT_EQ(std::ranges::count(listener->names(), "fail"), 1);
}

TEST_F(EngineCalls, nobodyIsToldWithoutADelegateAndTheRunEndsAllTheSame) {
  engine->setDelegate(nullptr);
  startBackup();
  engine->operationQueue()->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(world.mainQueue.waiting(), 0);
  EXPECT_EQ(steps(), Strings{"hdiutil create"});
  EXPECT_FALSE(engine->hasOperations());
}

TEST_F(EngineCalls, delegateThatListensToNothingIsHarmless) {
  const auto deaf = std::make_shared<ZQStashwickDelegate>();
  engine->setDelegate(deaf);
  backUp();
  world.tools.answerTool(kImageTool, kNoSpace);
  restore();
  EXPECT_EQ(steps(), (Strings{"hdiutil create", "hdiutil mount"}));
}

TEST_F(EngineCalls, delegateIsHeldWeakly) {
  const std::weak_ptr<Listener> watched = listener;
  listener.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(engine->delegate(), nullptr);
  backUp();
  EXPECT_EQ(steps(), Strings{"hdiutil create"});
}

TEST_F(EngineJudgement, authWithoutFailedMarksAnAuthenticationFailureAndStillFinishes) {
  world.tools.answerTool(kImageTool, "Authentication succeeded\n");
  backUp();
  EXPECT_TRUE(engine->hasAuthenticationFailure());
  EXPECT_THAT(listener->names(), ::testing::Contains("finish"));
}

TEST_F(EngineJudgement, authenticationFailureSurvivesTheNextBackupAndIsResetByARestore) {
  world.tools.answerTool(kImageTool, "Authentication succeeded\n");
  backUp();
  backUp();
  EXPECT_TRUE(engine->hasAuthenticationFailure());
  restore();
  EXPECT_FALSE(engine->hasAuthenticationFailure());
}

TEST_F(EngineJudgement, wordsAreSearchedInTheirVeryCase) {
  world.tools.answerTool(kImageTool, "FAILED, Failed, auth, AUTH\n");
  backUp();
  EXPECT_FALSE(engine->hasAuthenticationFailure());
  EXPECT_THAT(listener->names(), ::testing::Contains("finish"));
}

TEST_F(EngineJudgement, failureOfAStepThatIsNotTheLastIsToldAndCancelsTheRest) {
  world.tools.answerTool(kImageTool, "hdiutil: mount failed - no such image\n");
  restore();
  const auto calls = listener->calls();
  ASSERT_EQ(calls.size(), 2);
  const auto& fail = calls[calls[0].what == "fail" ? 0 : 1];
  ASSERT_EQ(fail.what, "fail");
  ASSERT_TRUE(fail.error.has_value());
  EXPECT_EQ(fail.error->domain, "ZQStashwickErrorDomain");
  EXPECT_EQ(fail.error->code, -1);
  EXPECT_EQ(fail.error->localizedFailureReason, "hdiutil: mount failed - no such image\n");
  EXPECT_FALSE(fail.onMainThread);
  EXPECT_TRUE(fail.hadOperations);
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
  EXPECT_FALSE(engine->hasOperations());
}

TEST_F(EngineJudgement, reasonIsTheFirstStringElementOfThePropertyList) {
  world.tools.answerTool(kImageTool, "noise <string>create failed - busy</string> more <string>x</string>");
  startBackup();
  startBackup();
  settle();
  const auto calls = listener->calls();
  const auto fail = std::ranges::find(calls, "fail", &Told::what);
  ASSERT_NE(fail, calls.end());
  EXPECT_EQ(fail->error->localizedFailureReason, "create failed - busy");
}

TEST_F(EngineJudgement, failedOutsideTheFirstStringElementIsNoFailure) {
  world.tools.answerTool(kImageTool, "warning: probe failed\n<string>/path/x.dmg</string>");
  backUp();
  EXPECT_THAT(listener->names(), ::testing::UnorderedElementsAre("begin", "finish"));
}

TEST_F(EngineJudgement, wordsCountInNamesToo) {
  world.tools.answerTool("/usr/bin/rsync", "sending incremental file list\nAuthors.txt\nwhat failed.txt\n");
  restore();
  EXPECT_THAT(listener->names(), ::testing::UnorderedElementsAre("begin", "fail"));
  EXPECT_TRUE(engine->hasAuthenticationFailure());
}

TEST_F(EngineJudgement, restIsCancelledOnlyAfterTheFailCallReturns) {
  world.tools.answerTool(kImageTool, "mount failed");
  std::size_t queued = 0;
  listener->whenItFails = [&] { queued = engine->operationQueue()->operationCount(); };
  restore();
  EXPECT_EQ(queued, 3);
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
}

TEST_F(EngineJudgement, stepsWaitWhileTheFailCallRuns) {
  world.tools.answerTool(kImageTool, "mount failed");
  Gate gate(world);
  listener->whenItFails = [&] { gate.pass(); };
  engine->restoreWithBackupInstance(instance(), nullptr);
  waitAt(gate);
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
  EXPECT_TRUE(engine->hasOperations());
  gate.open();
  settle();
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
}

TEST_F(EngineJudgement, failureOfTheLastStepIsToldToNobody) {
  failSilently(kNoSpace);
  EXPECT_THAT(listener->names(), ElementsAre("begin"));
  EXPECT_FALSE(engine->hasOperations());
}

TEST_F(EngineJudgement, textOfASilentFailureIsToldAtTheNextStartAndCancelsThatRun) {
  failSilently(kNoSpace);
  listener->forget();
  startBackup();
  settle();
  // The observer of the silent run is still there: two of them see the start.
  ASSERT_THAT(listener->names(), ElementsAre("fail", "fail"));
  for (const auto& call : listener->calls()) {
    EXPECT_EQ(call.error->localizedFailureReason, kNoSpace);
    EXPECT_TRUE(call.hadOperations);
    EXPECT_TRUE(call.onMainThread);  // the thread that started
  }
  EXPECT_EQ(world.tools.runs().size(), 1);
  EXPECT_FALSE(engine->hasOperations());
}

TEST_F(EngineJudgement, textOfASilentFailureIsHeldUntilAToolRunReplacesIt) {
  failSilently(kNoSpace);
  backUp();
  listener->forget();
  backUp();
  EXPECT_THAT(listener->names(), ElementsAre("fail"));
  EXPECT_EQ(world.tools.runs().size(), 1);
}

TEST_F(EngineJudgement, restoreAfterASilentFailureIsCancelledAsARestore) {
  failSilently(kNoSpace);
  listener->forget();
  restore();
  ASSERT_FALSE(listener->calls().empty());
  EXPECT_THAT(listener->calls(), Each(Field(&Told::what, "fail")));
  EXPECT_THAT(listener->calls(), Each(Field(&Told::type, &ZQStashwickTypeOperationRestore)));
  EXPECT_EQ(steps(), Strings{"hdiutil create"});
}

TEST_F(EngineJudgement, finishDropsTheText) {
  world.tools.answerTool(kImageTool, "Authentication succeeded\n");
  backUp();
  // Were the text still there, the adding of a restore's first step would judge it and set the mark, and the
  // mount, which prints nothing, would not take it back.
  restore();
  EXPECT_FALSE(engine->hasAuthenticationFailure());
}

TEST_F(EngineJudgement, runsOneAfterTheOtherReportEveryChangeOnce) {
  backUp();
  backUp();
  listener->forget();
  world.tools.answerTool(kImageTool, "mount failed");
  restore();
  EXPECT_EQ(std::ranges::count(listener->names(), "fail"), 1);
}

TEST_F(EngineJudgement, twoStartsBeforeTheFirstRunIsOverReportEveryChangeTwice) {
  world.files.holdEnumerationAt("/Volumes/STICK/a");
  startBackup();
  startBackup();
  world.tools.answerTool(kImageTool, kNoSpace);
  world.files.releaseEnumeration();
  settle();
  EXPECT_EQ(std::ranges::count(listener->names(), "fail"), 2);
  EXPECT_EQ(std::ranges::count(listener->names(), "finish"), 0);
  EXPECT_EQ(world.tools.runs().size(), 1);
}

TEST_F(EngineJudgement, twoStartsThatBothSucceedFinishOnceForTheText) {
  world.files.holdEnumerationAt("/Volumes/STICK/a");
  startBackup();
  startBackup();
  world.files.releaseEnumeration();
  settle();
  // The first of the two observers drops the text, so the second has nothing to judge.
  EXPECT_EQ(std::ranges::count(listener->names(), "finish"), 1);
  EXPECT_EQ(world.tools.runs().size(), 2);
}

TEST_F(EngineJudgement, otherQueuesAndOtherKeyPathsAreNotJudged) {
  Gate gate(world);
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    gate.pass();
    return std::string("Authentication failed");
  });
  startBackup();
  waitAt(gate);
  engine->cancel();
  gate.open();
  settle();
  base::OperationQueue other;
  engine->observeValueForKeyPath("operations", &other);
  engine->observeValueForKeyPath("operationCount", engine->operationQueue());
  EXPECT_FALSE(engine->hasAuthenticationFailure());
  engine->observeValueForKeyPath("operations", engine->operationQueue());
  EXPECT_TRUE(engine->hasAuthenticationFailure());
}

TEST_F(EngineJudgement, toolThatCannotBeLaunchedCountsAsFailed) {
  world.tools.removeTool(kImageTool);
  restore();
  EXPECT_EQ(std::ranges::count(listener->names(), "fail"), 1);
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
}

TEST_F(EngineJudgement, outputThatIsNoTextIsRepairedAndJudged) {
  world.tools.answerTool(kImageTool, "mount failed \xFF\n");
  restore();
  const auto calls = listener->calls();
  const auto fail = std::ranges::find(calls, "fail", &Told::what);
  ASSERT_NE(fail, calls.end());
  EXPECT_EQ(fail->error->localizedFailureReason, "mount failed \xEF\xBF\xBD\n");
}

TEST_F(EngineCancel, changesNothingWhenIdle) {
  engine->cancel();
  EXPECT_FALSE(engine->hasOperations());
  EXPECT_THAT(listener->names(), IsEmpty());
  backUp();
  engine->cancel();
  EXPECT_THAT(listener->names(), ::testing::UnorderedElementsAre("begin", "finish"));
  EXPECT_EQ(engine->currentOperationType(), &ZQStashwickTypeOperationBackup);
  EXPECT_NE(engine->backupQuery(), nullptr);
}

TEST_F(EngineCancel, stopsWhatHasNotStartedWithoutTellingTheDelegate) {
  Gate gate(world);
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    gate.pass();
    return std::string("mount failed");
  });
  engine->restoreWithBackupInstance(instance(), nullptr);
  waitAt(gate);
  engine->cancel();
  gate.open();
  settle();
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
  EXPECT_THAT(listener->names(), ElementsAre("begin"));
  EXPECT_FALSE(engine->hasOperations());
}

TEST_F(EngineCancel, leavesTheTextToBeJudgedAtTheNextStart) {
  Gate gate(world);
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    gate.pass();
    return std::string("mount failed");
  });
  engine->restoreWithBackupInstance(instance(), nullptr);
  waitAt(gate);
  engine->cancel();
  gate.open();
  settle();
  listener->forget();
  backUp();
  EXPECT_THAT(listener->names(), ElementsAre("fail"));
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
}

TEST_F(EngineDestruction, isHarmlessWhenNothingEverRan) {
  engine.reset();
  EXPECT_THAT(listener->names(), IsEmpty());
}

TEST_F(EngineDestruction, isHarmlessWhenIdleAfterARun) {
  backUp();
  listener->forget();
  engine.reset();
  EXPECT_THAT(listener->names(), IsEmpty());
}

TEST_F(EngineDestruction, isHarmlessAfterASilentFailure) {
  failSilently(kNoSpace);
  listener->forget();
  engine.reset();
  EXPECT_THAT(listener->names(), IsEmpty());
}

TEST_F(EngineDestruction, waitsForTheToolThatRunsRunsNoFurtherStepAndTellsNobody) {
  Gate gate(world);
  std::atomic<bool> toolEnded = false;
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    gate.pass();
    toolEnded = true;
    return std::string();
  });
  engine->restoreWithBackupInstance(instance(), nullptr);
  waitAt(gate);
  listener->forget();
  // Ends the tool once the engine has let its delegate go, which it does after it has cancelled the rest.
  std::thread endsTheTool([&gate, dying = engine.get()] {
    while (dying->delegate()) std::this_thread::yield();
    gate.open();
  });
  engine.reset();
  EXPECT_TRUE(toolEnded);
  endsTheTool.join();
  EXPECT_EQ(steps(), Strings{"hdiutil mount"});
  EXPECT_THAT(listener->names(), IsEmpty());
}

TEST_F(EngineDestruction, dropsABeginCallThatIsStillOnItsWay) {
  startBackup();
  engine->operationQueue()->waitUntilAllOperationsAreFinished();
  engine.reset();
  ASSERT_EQ(world.mainQueue.waiting(), 1);
  world.runMainQueue();
  EXPECT_THAT(listener->names(), ElementsAre("finish"));
}

}  // namespace
}  // namespace tests::engine
