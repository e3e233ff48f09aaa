#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>

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
  static constexpr const char* kName = "ContractProbe";

  Fixture fixture;
};
TYPED_TEST_SUITE_P(UserSessionContract);

TYPED_TEST_P(UserSessionContract, hasAUserWithAName) { EXPECT_NE(this->fixture.user().fullUserName(), ""); }

TYPED_TEST_P(UserSessionContract, listsWhatRuns) {
  const std::optional<std::string> name = this->kName;
  EXPECT_THAT(this->fixture.user().runningBundleNames(), testing::Not(testing::Contains(name)));
  this->fixture.launch(this->kName);
  EXPECT_THAT(this->fixture.user().runningBundleNames(), testing::Contains(name));
  this->fixture.quit(this->kName);
  EXPECT_THAT(this->fixture.user().runningBundleNames(), testing::Not(testing::Contains(name)));
}

TYPED_TEST_P(UserSessionContract, listsNothingWhenProcessesCannotBeListed) {
  this->fixture.launch(this->kName);
  this->fixture.hideProcesses();
  EXPECT_THAT(this->fixture.user().runningBundleNames(), testing::IsEmpty());
}

REGISTER_TYPED_TEST_SUITE_P(UserSessionContract, hasAUserWithAName, listsWhatRuns,
                            listsNothingWhenProcessesCannotBeListed);

}  // namespace contract
