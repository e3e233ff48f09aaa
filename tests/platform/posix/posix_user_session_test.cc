#include "platform/posix/posix_user_session.h"

#include <filesystem>
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
  processes.write("1/stat", "1 (init) S 0 1 1 0 -1\n");
  processes.write("20/stat", "20 (Stashwick) R 1 20 20 0 -1\n");
  processes.write("300/stat", "300 (a) Z\nb ) S 1 300 300 0 -1\n");
  processes.write("4/status", "");
  processes.write("5/stat", "5 (");
  processes.write("6/stat", "6 ) (");
  processes.write("7/stat", "7 () ");
  processes.write("self/stat", "300 (me) R 1 300 300 0 -1\n");
  processes.write("version", "");
  // Reading fails as it does when the process ends meanwhile.
  std::filesystem::create_directories(processes / "8/stat");
  const std::optional<std::string> nameless;
  EXPECT_THAT(PosixUserSession(processes.path()).runningBundleNames(),
              UnorderedElementsAre("init", "Stashwick", "a) Z\nb ", nameless, nameless, nameless, nameless,
                                   nameless));
}

TEST(RunningBundleNames, areNotThoseOfProcessesThatHaveEnded) {
  const TemporaryFolder processes;
  processes.write("20/stat", "20 (Stashwick) Z 1 20 20 0 -1\n");
  processes.write("21/stat", "21 (Stashwick) X 1 20 20 0 -1\n");
  EXPECT_THAT(PosixUserSession(processes.path()).runningBundleNames(), testing::IsEmpty());
}

}  // namespace
