#include <gtest/gtest.h>

#include "tests/resources/resource_files.h"

namespace resources_test {

TEST(Defaults, leaveAutomaticBackupsOffAndSayNothingElse) {
  EXPECT_EQ(readDictionary("Defaults.plist"),
            (base::PropertyList::Dictionary{{"ZQCreatesAutomaticBackups", false}}));
}

}  // namespace resources_test
