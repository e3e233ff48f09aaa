#include "platform/posix/posix_user_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "tests/platform/posix/temporary_folder.h"

using platform::posix::fullNameFromComment;
using platform::posix::PosixUserSession;
using testing::UnorderedElementsAre;

namespace {

TEST(FullName, isTheCommentUpToTheFirstComma) {
  EXPECT_EQ(fullNameFromComment("Ada Lovelace,,,", "ada"), "Ada Lovelace");
  EXPECT_EQ(fullNameFromComment(" Ada Lovelace ", "ada"), "Ada Lovelace");
}

TEST(FullName, hasTheCapitalisedLogInNameForAnAmpersand) {
  EXPECT_EQ(fullNameFromComment("& Lovelace,Room 1", "ada"), "Ada Lovelace");
  EXPECT_EQ(fullNameFromComment("&", ""), "");
}

TEST(FullName, isTheLogInNameWhereThereIsNoOther) {
  EXPECT_EQ(fullNameFromComment("", "ada"), "ada");
  EXPECT_EQ(fullNameFromComment(",,,", "ada"), "ada");
  EXPECT_EQ(fullNameFromComment("  ", "ada"), "ada");
}

TEST(RunningBundleNames, areTheNamesOfAllProcesses) {
  const TemporaryFolder processes;
  processes.write("1/comm", "init\n");
  processes.write("20/comm", "Stashwick\n");
  processes.write("300/comm", "a\nb \n");
  processes.write("4/status", "");
  processes.write("self/comm", "me\n");
  processes.write("version", "");
  EXPECT_THAT(PosixUserSession(processes.path()).runningBundleNames(),
              UnorderedElementsAre(std::optional<std::string>("init"), "Stashwick", "a\nb ", std::nullopt));
}

}  // namespace
