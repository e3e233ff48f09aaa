#include "base/format.h"

#include <gtest/gtest.h>
#include <limits>

namespace base_test {

using base::arrayDescription;
using base::stringWithFormat;
using base::stringWithFormatOnly;

TEST(StringWithFormat, fillsConversionsInOrder) {
  EXPECT_EQ(stringWithFormat("%@/%@.manifest", {"/store/STICK", "2026"}), "/store/STICK/2026.manifest");
  EXPECT_EQ(stringWithFormat("%@ has %li", {std::string("c"), std::int64_t{3}}), "c has 3");
}

TEST(StringWithFormat, leavesATextWithoutConversionsAsItIs) {
  EXPECT_EQ(stringWithFormat("", {}), "");
  EXPECT_EQ(stringWithFormat("Stashwick 3", {"unused"}), "Stashwick 3");
}

TEST(StringWithFormat, showsWholeNumbersToTheirLimits) {
  EXPECT_EQ(stringWithFormat("%li", {std::numeric_limits<std::int64_t>::min()}), "-9223372036854775808");
  EXPECT_EQ(stringWithFormat("%@", {std::numeric_limits<std::int64_t>::max()}), "9223372036854775807");
}

TEST(StringWithFormat, readsNullForAnAbsentText) {
  EXPECT_EQ(stringWithFormat("[%@]", {std::nullopt}), "[(null)]");
  EXPECT_EQ(stringWithFormat("[%@]", {std::optional<std::string>()}), "[(null)]");
  EXPECT_EQ(stringWithFormat("[%@]", {std::optional<std::string>("x")}), "[x]");
  EXPECT_EQ(stringWithFormat("[%@]", {""}), "[]");
}

TEST(StringWithFormat, readsNullForAMissingArgument) {
  EXPECT_EQ(stringWithFormat("%@ at %@ %li", {"Today"}), "Today at (null) (null)");
}

TEST(StringWithFormat, showsAPercentSignForTwo) {
  EXPECT_EQ(stringWithFormat("100%% of %@", {"it"}), "100% of it");
  EXPECT_EQ(stringWithFormat("%%@", {"unused"}), "%@");
  EXPECT_EQ(stringWithFormat("%%%@", {"x"}), "%x");
}

TEST(StringWithFormat, leavesUnknownConversionsAsTheyAreAndTakesNoArgumentForThem) {
  EXPECT_EQ(stringWithFormat("%d %s %l %x %n %1$@", {"unused"}), "%d %s %l %x %n %1$@");
  EXPECT_EQ(stringWithFormat("%d %@", {"x"}), "%d x");
  EXPECT_EQ(stringWithFormat("%", {"unused"}), "%");
  EXPECT_EQ(stringWithFormat("%@ %", {"x"}), "x %");
}

TEST(StringWithFormat, doesNotLookForConversionsInArguments) {
  EXPECT_EQ(stringWithFormat("%@|%@", {"%@ %% %li", "b"}), "%@ %% %li|b");
}

TEST(StringWithFormatOnly, showsAPercentSignForTwo) {
  EXPECT_EQ(stringWithFormatOnly("5%% left"), "5% left");
  EXPECT_EQ(stringWithFormatOnly("%%%%"), "%%");
  EXPECT_EQ(stringWithFormatOnly("%%@"), "%@");
}

TEST(StringWithFormatOnly, showsEveryOtherConversionItself) {
  EXPECT_EQ(stringWithFormatOnly("%@ %s %n %li %"), "%@ %s %n %li %");
  EXPECT_EQ(stringWithFormatOnly("%%%"), "%%");
  EXPECT_EQ(stringWithFormatOnly(""), "");
}

TEST(ArrayDescription, putsOneElementALineWithFourBlanksBefore) {
  EXPECT_EQ(arrayDescription({"create", "HFS", "x"}), "(\n    create,\n    HFS,\n    x\n)");
  EXPECT_EQ(arrayDescription({"create"}), "(\n    create\n)");
  EXPECT_EQ(arrayDescription({}), "(\n)");
}

TEST(ArrayDescription, leavesLettersDigitsAndAFewSignsUnquoted) {
  EXPECT_EQ(arrayDescription({"azAZ09_$/:."}), "(\n    azAZ09_$/:.\n)");
  EXPECT_EQ(arrayDescription({"/Volumes/STICK"}), "(\n    /Volumes/STICK\n)");
}

TEST(ArrayDescription, quotesEverythingElse) {
  for (const char* element : {"", "-fs", "HFS+", "MY STICK", "a,b", "(", "ä", "~", "a\nb"}) {
    EXPECT_EQ(arrayDescription({element}), "(\n    \"" + std::string(element) + "\"\n)");
  }
}

TEST(ArrayDescription, escapesQuotesAndBackslashes) {
  EXPECT_EQ(arrayDescription({R"(a"b\c)"}), "(\n    \"a\\\"b\\\\c\"\n)");
}

}  // namespace base_test
