#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "platform/fake/world.h"

namespace platform::fake {
namespace {

using testing::ElementsAre;
using Capture = ports::ToolRun::Capture;

struct FakeTools : testing::Test {
  std::string run(const char* path, ports::InputPipe* input = nullptr) {
    return world.tools.run({path, {"create", "-plist"}, input, Capture::bothOutputs});
  }
  World world;
};

TEST_F(FakeTools, printNothingWithoutAScript) { EXPECT_EQ(run("/usr/bin/hdiutil"), ""); }

TEST_F(FakeTools, printTheAnswersBeforeTheScriptSpeaks) {
  world.tools.whenToolRuns("/usr/bin/hdiutil", [](const RecordedRun& seen) { return seen.arguments[0]; });
  world.tools.answerTool("/usr/bin/hdiutil", "one");
  world.tools.answerTool("/usr/bin/hdiutil", "two");
  EXPECT_EQ(run("/usr/bin/hdiutil"), "one");
  EXPECT_EQ(run("/usr/bin/hdiutil"), "two");
  EXPECT_EQ(run("/usr/bin/hdiutil"), "create");
  EXPECT_EQ(run("/usr/bin/rsync"), "");
}

TEST_F(FakeTools, recordEachRun) {
  const auto pipe = world.tools.makePipe();
  pipe->write(base::Secret("secret"));
  run("/usr/bin/hdiutil", pipe.get());
  run("/bin/rm");
  ASSERT_EQ(world.tools.runs().size(), 2U);
  const auto first = world.tools.runsOf("/usr/bin/hdiutil").at(0);
  EXPECT_THAT(first.arguments, ElementsAre("create", "-plist"));
  EXPECT_TRUE(first.hasArgument("-plist"));
  EXPECT_EQ(first.standardInput, "secret");
  EXPECT_EQ(world.tools.runsOf("/bin/rm").at(0).standardInput, std::nullopt);
}

TEST_F(FakeTools, recordPipesThatNoToolReads) {
  const auto pipe = world.tools.makePipe();
  pipe->write(base::Secret(std::string_view("(null)\0\n", 8)));
  pipe->closeWritingEnd();
  const auto pipes = world.tools.pipes();
  ASSERT_EQ(pipes.size(), 1U);
  EXPECT_EQ(pipes[0].bytes, std::string("(null)\0\n", 8));
  EXPECT_TRUE(pipes[0].writingEndClosed);
  EXPECT_FALSE(pipes[0].attached);
}

struct FakeKeychain : testing::Test {
  const ports::KeychainQuery query{.service = "Stashwick 3", .account = "Pat Example", .returnData = true};
  World world;
};

TEST_F(FakeKeychain, failsAsToldAndCountsItsCalls) {
  world.keychain.failWith(ports::errSecNotAvailable);
  EXPECT_EQ(world.keychain.secItemAdd(query, base::Secret("x")), ports::errSecNotAvailable);
  EXPECT_EQ(world.keychain.secItemCopyMatching(query).status, ports::errSecNotAvailable);
  EXPECT_EQ(world.keychain.secItemDelete(query), ports::errSecNotAvailable);
  world.keychain.failWith(std::nullopt);
  EXPECT_EQ(world.keychain.secItemAdd(query, base::Secret("x")), ports::errSecSuccess);
  EXPECT_EQ(world.keychain.calls(), 4);
  EXPECT_EQ(world.keychain.items(), 1U);
  EXPECT_EQ(world.keychain.secret("Stashwick 3", "Pat Example"), "x");
}

TEST_F(FakeKeychain, failsTheNextAdditionOnly) {
  world.keychain.failNextAdd(ports::errSecAuthFailed);
  EXPECT_EQ(world.keychain.secItemDelete(query), ports::errSecItemNotFound);
  EXPECT_EQ(world.keychain.secItemAdd(query, base::Secret("x")), ports::errSecAuthFailed);
  EXPECT_EQ(world.keychain.secItemAdd(query, base::Secret("x")), ports::errSecSuccess);
}

TEST_F(FakeKeychain, datesItemsByTheWorldsClock) {
  world.letSecondsPass(5);
  world.keychain.secItemAdd(query, base::Secret("x"));
  const auto found = world.keychain.secItemCopyMatching({.returnAttributes = true});
  ASSERT_EQ(found.attributes.size(), 1U);
  EXPECT_EQ(*base::find<base::Date>(found.attributes[0], "cdat"), world.clock.now());
}

struct FakeDates : testing::Test {
  std::string daysAgo(double days) {
    return world.dates.shortRelativeDateAndTime({world.clock.now().secondsSinceReferenceDate - days * 86400});
  }
  World world;
};

TEST_F(FakeDates, areRelativeToTheDay) {
  EXPECT_EQ(daysAgo(0.58), "Today 00:09");
  EXPECT_EQ(daysAgo(1), "Yesterday 14:05");
  EXPECT_EQ(daysAgo(2), "11/13/26 14:05");
}

TEST_F(FakeDates, readAsATestSays) {
  world.dates.setPreferredLanguages({"de", "en"});
  world.dates.mediumDatesReadAs([](base::Date, const std::string& language) { return "medium " + language; });
  world.dates.shortDatesReadAs([](base::Date) { return "kurz 1"; });
  EXPECT_THAT(world.dates.preferredLanguages(), ElementsAre("de", "en"));
  EXPECT_EQ(world.dates.mediumDateAndTime(world.clock.now(), "de"), "medium de");
  EXPECT_EQ(daysAgo(0), "kurz 1");
}

}  // namespace
}  // namespace platform::fake
