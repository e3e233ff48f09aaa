#include "platform/fake/world.h"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace platform::fake {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct FakeWorld : testing::Test {
  void collectFailures() {
    world.failure.handleWith([this](const std::string& message) { failures.push_back(message); });
  }
  double secondsPassed() const {
    return world.clock.now().secondsSinceReferenceDate - Clock::kStart.secondsSinceReferenceDate;
  }

  std::vector<std::string> failures;
  World world;
};

TEST_F(FakeWorld, startsInTheAfternoon) {
  EXPECT_EQ(world.dates.mediumDateAndTime(world.clock.now(), "en"), "Nov 15, 2026, 14:05:09");
  EXPECT_EQ(world.dates.shortRelativeDateAndTime(world.clock.now()), "Today 14:05");
}

TEST_F(FakeWorld, letsNoTimePassByItself) {
  world.runMainQueue();
  EXPECT_EQ(world.clock.now(), Clock::kStart);
}

TEST_F(FakeWorld, runsADelayedCallAtItsVeryTime) {
  double at = -1;
  world.mainQueue.postAfter(30, [&] { at = secondsPassed(); });
  world.letSecondsPass(29.5);
  EXPECT_EQ(at, -1);
  world.letSecondsPass(10);
  EXPECT_EQ(at, 30);
  EXPECT_EQ(secondsPassed(), 39.5);
}

TEST_F(FakeWorld, runsACallThatRearmsItselfEveryTime) {
  int runs = 0;
  std::function<void()> rearm = [&] {
    ++runs;
    world.mainQueue.postAfter(30, rearm);
  };
  rearm();
  world.letSecondsPass(90);
  EXPECT_EQ(runs, 4);
  EXPECT_EQ(world.mainQueue.waiting(), 1U);
}

TEST_F(FakeWorld, runsWhatIsPostedBeforeTheNextDelayedCall) {
  std::string ran;
  world.mainQueue.postAfter(1, [&] {
    ran += "first ";
    world.mainQueue.post([&] { ran += "posted "; });
  });
  world.mainQueue.postAfter(1, [&] { ran += "second"; });
  world.letSecondsPass(1);
  EXPECT_EQ(ran, "first posted second");
}

TEST_F(FakeWorld, doesNotRunTheQueueInsideAClosure) {
  std::string ran;
  world.mainQueue.post([&] {
    world.mainQueue.post([&] { ran += "inner"; });
    world.runMainQueue();
    ran += "outer ";
  });
  world.runMainQueue();
  EXPECT_EQ(ran, "outer inner");
}

TEST_F(FakeWorld, performsNothingOnTheMainThreadEitherOnceTheQueueIsClosed) {
  world.closeMainQueue();
  bool ran = false;
  EXPECT_FALSE(world.mainQueue.performAndWait([&] { ran = true; }));
  world.mainQueue.post([&] { ran = true; });
  world.letSecondsPass(1);
  EXPECT_FALSE(ran);
}

TEST_F(FakeWorld, waitsForWhatAWorkerChanges) {
  std::jthread worker([&] { world.log.log("done"); });
  EXPECT_TRUE(world.runUntil([&] { return world.log.has("done"); }));
}

TEST_F(FakeWorld, runsTheQueueWhileAnotherThreadWaitsForIt) {
  bool performed = false;
  world.runWhile([&] { world.mainQueue.performAndWait([&] { performed = true; }); });
  EXPECT_TRUE(performed);
}

TEST_F(FakeWorld, saysWhenTheQueueIsRunFromAnotherThread) {
  collectFailures();
  std::thread([&] { world.runMainQueue(); }).join();
  EXPECT_THAT(failures, ElementsAre(HasSubstr("not the main one")));
}

TEST_F(FakeWorld, removesItsFilesAtTheEnd) {
  std::filesystem::path root;
  {
    World other;
    other.files.write("/some/file", "x");
    root = other.files.realPath("/");
    ASSERT_TRUE(std::filesystem::exists(root / "some/file"));
  }
  EXPECT_FALSE(std::filesystem::exists(root));
}

using FakeFailure = FakeWorld;

TEST_F(FakeFailure, endsTheProgramWithTheMessage) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(world.failure("what went wrong"), "what went wrong");
}

using FakeFiles = FakeWorld;

TEST_F(FakeFiles, stayInsideTheWorldsOwnFolder) {
  EXPECT_EQ(world.files.realPath("/../../etc/passwd"), world.files.realPath("/etc/passwd"));
  EXPECT_FALSE(world.files.fileExists("/etc/passwd"));
}

TEST_F(FakeFiles, findNothingUnderANameWithANUL) {
  world.files.addVolume("STICK");
  EXPECT_FALSE(world.files.fileExists(std::string("/Volumes/STICK\0x", 16)));
}

TEST_F(FakeFiles, areEnumeratedByName) {
  world.files.addVolume("STICK");
  for (const char* name : {"c", "a", "b/2", "b/1"})
    world.files.write(std::string("/Volumes/STICK/") + name, "");
  std::string names;
  world.files.enumerate("/Volumes/STICK", {}, [&](const ports::FileItem& item) {
    names += item.name;
    return true;
  });
  EXPECT_EQ(names, "ab12c");
}

TEST_F(FakeFiles, bearTheWorldsTimeAndTheDatesThatAreSet) {
  world.files.addVolume("STICK");
  world.files.write("/Volumes/STICK/a", "");
  world.files.write("/Volumes/STICK/b", "");
  const base::Date earlier{Clock::kStart.secondsSinceReferenceDate - 1000};
  world.files.setModificationDate("/Volumes/STICK/b", earlier);
  world.files.setCreationDate("/Volumes/STICK/a", earlier);
  std::vector<double> ages;
  const auto age = [](base::Date date) {
    return Clock::kStart.secondsSinceReferenceDate - date.secondsSinceReferenceDate;
  };
  world.files.enumerate("/Volumes/STICK", {.creationDate = true, .contentModificationDate = true},
                        [&](const ports::FileItem& item) {
                          ages.push_back(age(item.creationDate));
                          ages.push_back(age(item.contentModificationDate));
                          return true;
                        });
  EXPECT_THAT(ages, ElementsAre(1000, 0, 1000, 1000));
}

TEST_F(FakeFiles, haveAFreeSizeForEachVolumeAndForTheSystem) {
  world.files.addVolume("STICK");
  world.files.setFreeSize("/Volumes/STICK", 12);
  world.files.setFreeSize("/", 34);
  world.files.createDirectory("/Volumes/STICK/folder");
  EXPECT_EQ(world.files.fileSystemFreeSize("/Volumes/STICK/folder"), 12U);
  EXPECT_EQ(world.files.fileSystemFreeSize(world.applicationSupport()), 34U);
  world.files.removeVolume("STICK");
  EXPECT_EQ(world.files.fileSystemFreeSize("/Volumes/STICK"), std::nullopt);
}

TEST_F(FakeFiles, holdAnEnumerationUntilItIsReleased) {
  world.files.addVolume("STICK");
  for (const char* name : {"a", "b"}) world.files.write(std::string("/Volumes/STICK/") + name, "");
  world.files.holdEnumerationAt("/Volumes/STICK/b");
  std::atomic<int> visits = 0;
  std::jthread scan([&] {
    world.files.enumerate("/Volumes/STICK", {}, [&](const ports::FileItem&) { return ++visits > 0; });
  });
  world.files.waitUntilEnumerationIsHeld();
  EXPECT_EQ(visits, 1);
  world.files.releaseEnumeration();
  scan.join();
  EXPECT_EQ(visits, 2);
}

}  // namespace
}  // namespace platform::fake
