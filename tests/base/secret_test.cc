#include "base/secret.h"

#include <array>
#include <gtest/gtest.h>
#include <type_traits>
#include <utility>

namespace base {
namespace {

TEST(Secret, holdsAnyBytes) {
  const std::string_view bytes("a\0b", 3);
  EXPECT_EQ(Secret(bytes).reveal(), bytes);
  EXPECT_EQ(Secret(bytes).size(), 3u);
  EXPECT_TRUE(Secret().empty());
  EXPECT_EQ(Secret().reveal(), "");
}

TEST(Secret, isEmptyOnceMovedFrom) {
  Secret from("password");
  Secret to(std::move(from));
  EXPECT_TRUE(from.empty());
  EXPECT_EQ(from.reveal(), "");
  EXPECT_EQ(to.reveal(), "password");
}

TEST(Secret, takesThePlaceOfAnother) {
  Secret from("new"), to("old");
  to = std::move(from);
  EXPECT_TRUE(from.empty());
  EXPECT_EQ(to.reveal(), "new");
}

TEST(Secret, survivesAssignmentToItself) {
  Secret secret("password");
  Secret& same = secret;
  secret = std::move(same);
  EXPECT_EQ(secret.reveal(), "password");
}

TEST(Secret, appendsAndLeavesTheShorterOneEmpty) {
  Secret shorter("pass");
  const Secret longer = std::move(shorter).append(std::string_view("\0\n", 2));
  EXPECT_TRUE(shorter.empty());
  EXPECT_EQ(longer.reveal(), std::string_view("pass\0\n", 6));
}

TEST(Secret, duplicatesOnlyWhenAsked) {
  const Secret secret("password");
  EXPECT_EQ(secret.duplicate().reveal(), "password");
  EXPECT_FALSE(std::is_copy_constructible_v<Secret>);
  EXPECT_FALSE(std::is_copy_assignable_v<Secret>);
}

TEST(WipeMemory, leavesZeros) {
  std::array<char, 4> bytes = {'a', 'b', 'c', 'd'};
  wipeMemory(bytes.data(), 3);
  EXPECT_EQ(bytes, (std::array<char, 4>{0, 0, 0, 'd'}));
}

}  // namespace
}  // namespace base
