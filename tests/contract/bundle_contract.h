#pragma once

#include <gtest/gtest.h>
#include <string>

#include "ports/bundle.h"

namespace contract {

// What an application's resources keep to on every host. A fixture has
//   void add(name, type, contents);      adds a resource, before bundle() is first called
//   void translate(key, text);           adds a text of the user's language, before bundle() is first called
//   ports::Bundle& bundle();
//   std::string contentsOf(logicalPath);
template <class Fixture>
class BundleContract : public testing::Test {
 protected:
  Fixture fixture;
};
TYPED_TEST_SUITE_P(BundleContract);

TYPED_TEST_P(BundleContract, findsAResourceByNameAndType) {
  this->fixture.add("Defaults", "plist", "contents");
  const auto path = this->fixture.bundle().pathForResource("Defaults", "plist");
  ASSERT_TRUE(path.has_value());
  EXPECT_TRUE(path->starts_with('/')) << *path;
  EXPECT_EQ(this->fixture.contentsOf(*path), "contents");
}

TYPED_TEST_P(BundleContract, findsAResourceByItsWholeNameWithoutAType) {
  this->fixture.add("Alert", "wav", "a sound");
  const auto path = this->fixture.bundle().pathForResource("Alert.wav", "");
  ASSERT_TRUE(path.has_value());
  EXPECT_EQ(this->fixture.contentsOf(*path), "a sound");
  EXPECT_EQ(this->fixture.bundle().pathForResource("Alert.wav", "wav"), std::nullopt);
}

TYPED_TEST_P(BundleContract, findsNoResourceThatIsNotThere) {
  this->fixture.add("Defaults", "plist", "contents");
  EXPECT_EQ(this->fixture.bundle().pathForResource("Defaults", "txt"), std::nullopt);
  EXPECT_EQ(this->fixture.bundle().pathForResource("Other", "plist"), std::nullopt);
}

TYPED_TEST_P(BundleContract, translates) {
  this->fixture.translate("Backup \"%@\"?", "\"%@\" sichern?");
  EXPECT_EQ(this->fixture.bundle().localizedString("Backup \"%@\"?"), "\"%@\" sichern?");
}

TYPED_TEST_P(BundleContract, givesTheKeyWhereThereIsNoText) {
  this->fixture.translate("Later", "Später");
  EXPECT_EQ(this->fixture.bundle().localizedString("Never heard of"), "Never heard of");
}

REGISTER_TYPED_TEST_SUITE_P(BundleContract, findsAResourceByNameAndType,
                            findsAResourceByItsWholeNameWithoutAType, findsNoResourceThatIsNotThere,
                            translates, givesTheKeyWhereThereIsNoText);

}  // namespace contract
