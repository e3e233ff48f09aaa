#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>

#include "ports/user.h"

namespace contract {

// What the user's session keeps to on every host. A fixture has
//   ports::UserSession& user();
//   void launch(name);          a process of this bundle name (at most 15 bytes) runs from now on
//   void quit(name);            and now no longer
//   void hideProcesses();       processes cannot be listed from now on
template <class Fixture>
class UserSessionContract : public testing::Test {
 protected:
  Fixture fixture;
  // Of no process that another run of these tests has launched.
  const std::string name = "Probe" + std::to_string(::getpid());
};
TYPED_TEST_SUITE_P(UserSessionContract);

TYPED_TEST_P(UserSessionContract, hasAUserWithAName) { EXPECT_NE(this->fixture.user().fullUserName(), ""); }

TYPED_TEST_P(UserSessionContract, listsWhatRuns) {
  const std::optional<std::string> launched = this->name;
  EXPECT_THAT(this->fixture.user().runningBundleNames(), testing::Not(testing::Contains(launched)));
  this->fixture.launch(this->name.c_str());
  EXPECT_THAT(this->fixture.user().runningBundleNames(), testing::Contains(launched));
  this->fixture.quit(this->name.c_str());
  EXPECT_THAT(this->fixture.user().runningBundleNames(), testing::Not(testing::Contains(launched)));
}

TYPED_TEST_P(UserSessionContract, listsNothingWhenProcessesCannotBeListed) {
  this->fixture.launch(this->name.c_str());
  this->fixture.hideProcesses();
  EXPECT_THAT(this->fixture.user().runningBundleNames(), testing::IsEmpty());
}

REGISTER_TYPED_TEST_SUITE_P(UserSessionContract, hasAUserWithAName, listsWhatRuns,
                            listsNothingWhenProcessesCannotBeListed);

}  // namespace contract
