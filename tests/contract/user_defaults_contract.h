#pragma once

#include <gtest/gtest.h>

#include "ports/user_defaults.h"

namespace contract {

// What settings keep to on every host. A fixture has
//   ports::UserDefaults& defaults();
//   void set(base::PropertyList value, std::string_view key);   as the user, or another program, sets it
//   void restart();                                             from now on, defaults() is a later process's
template <class Fixture>
class UserDefaultsContract : public testing::Test {
 protected:
  ports::UserDefaults& defaults() { return fixture.defaults(); }
  bool boolOf(const base::PropertyList& value) {
    fixture.set(value, "key");
    return defaults().boolForKey("key");
  }
  std::optional<std::string> stringOf(const base::PropertyList& value) {
    fixture.set(value, "key");
    return defaults().stringForKey("key");
  }

  Fixture fixture;
};
TYPED_TEST_SUITE_P(UserDefaultsContract);

TYPED_TEST_P(UserDefaultsContract, hasNothingUnderAKeyThatIsNotSet) {
  EXPECT_FALSE(this->defaults().boolForKey("key"));
  EXPECT_EQ(this->defaults().stringForKey("key"), std::nullopt);
}

TYPED_TEST_P(UserDefaultsContract, givesWhatWasRegistered) {
  this->defaults().registerDefaults(base::PropertyList::Dictionary{{"flag", true}, {"text", "AES-128"}});
  EXPECT_TRUE(this->defaults().boolForKey("flag"));
  EXPECT_EQ(this->defaults().stringForKey("text"), "AES-128");
}

TYPED_TEST_P(UserDefaultsContract, prefersWhatTheUserSet) {
  this->defaults().registerDefaults(base::PropertyList::Dictionary{{"flag", true}, {"text", "AES-128"}});
  this->defaults().setBool(false, "flag");
  this->fixture.set("AES-256", "text");
  EXPECT_FALSE(this->defaults().boolForKey("flag"));
  EXPECT_EQ(this->defaults().stringForKey("text"), "AES-256");
}

TYPED_TEST_P(UserDefaultsContract, prefersWhatTheUserSetBeforeTheRegistration) {
  this->defaults().setBool(false, "flag");
  this->defaults().registerDefaults(base::PropertyList::Dictionary{{"flag", true}});
  EXPECT_FALSE(this->defaults().boolForKey("flag"));
}

TYPED_TEST_P(UserDefaultsContract, registersNothingFromNoDictionary) {
  this->defaults().registerDefaults(base::PropertyList::Dictionary{{"flag", true}});
  this->defaults().registerDefaults(std::nullopt);
  EXPECT_TRUE(this->defaults().boolForKey("flag"));
}

TYPED_TEST_P(UserDefaultsContract, storesWhatIsSet) {
  this->defaults().setBool(true, "flag");
  this->fixture.restart();
  EXPECT_TRUE(this->defaults().boolForKey("flag"));
}

TYPED_TEST_P(UserDefaultsContract, storesTextsAndTakesThemBack) {
  this->defaults().setString("AES-256", "text");
  this->fixture.restart();
  EXPECT_EQ(this->defaults().stringForKey("text"), "AES-256");
  this->defaults().setString(std::nullopt, "text");
  this->fixture.restart();
  EXPECT_EQ(this->defaults().stringForKey("text"), std::nullopt);
}

TYPED_TEST_P(UserDefaultsContract, givesWhatWasRegisteredOnceATextIsTakenBack) {
  this->defaults().registerDefaults(base::PropertyList::Dictionary{{"text", "AES-128"}});
  this->defaults().setString("AES-256", "text");
  this->defaults().setString(std::nullopt, "text");
  EXPECT_EQ(this->defaults().stringForKey("text"), "AES-128");
}

TYPED_TEST_P(UserDefaultsContract, doesNotStoreWhatIsRegistered) {
  this->defaults().registerDefaults(base::PropertyList::Dictionary{{"flag", true}});
  this->defaults().setBool(true, "other");
  this->fixture.restart();
  EXPECT_FALSE(this->defaults().boolForKey("flag"));
}

TYPED_TEST_P(UserDefaultsContract, readsTruthFromBooleansNumbersAndTexts) {
  for (const base::PropertyList& value :
       std::initializer_list<base::PropertyList>{true, 1, -3, 0.5, "YES", "yes", "true", "1"}) {
    EXPECT_TRUE(this->boolOf(value));
  }
  for (const base::PropertyList& value :
       std::initializer_list<base::PropertyList>{false, 0, 0.0, "NO", "false", "0", "", "off"}) {
    EXPECT_FALSE(this->boolOf(value));
  }
}

TYPED_TEST_P(UserDefaultsContract, readsNoTruthFromAnythingElse) {
  EXPECT_FALSE(this->boolOf(base::PropertyList::Array{true}));
  EXPECT_FALSE(this->boolOf(base::PropertyList::Data{std::byte{1}}));
}

TYPED_TEST_P(UserDefaultsContract, givesTextsAndNumbersAsText) {
  EXPECT_EQ(this->stringOf("AES-256"), "AES-256");
  EXPECT_EQ(this->stringOf(""), "");
  EXPECT_EQ(this->stringOf(-12), "-12");
}

TYPED_TEST_P(UserDefaultsContract, givesNoTextOfAnythingElse) {
  EXPECT_EQ(this->stringOf(base::PropertyList::Array{"a"}), std::nullopt);
  EXPECT_EQ(this->stringOf(base::PropertyList::Data{std::byte{1}}), std::nullopt);
}

REGISTER_TYPED_TEST_SUITE_P(UserDefaultsContract, hasNothingUnderAKeyThatIsNotSet, givesWhatWasRegistered,
                            prefersWhatTheUserSet, prefersWhatTheUserSetBeforeTheRegistration,
                            storesTextsAndTakesThemBack, givesWhatWasRegisteredOnceATextIsTakenBack,
                            registersNothingFromNoDictionary, storesWhatIsSet, doesNotStoreWhatIsRegistered,
                            readsTruthFromBooleansNumbersAndTexts, readsNoTruthFromAnythingElse,
                            givesTextsAndNumbersAsText, givesNoTextOfAnythingElse);

}  // namespace contract
