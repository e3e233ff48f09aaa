#include "cli/text.h"

#include <gtest/gtest.h>

namespace {

using base::PropertyList;

TEST(JsonText, writesEveryKindOfValue) {
  const PropertyList::Dictionary value{{"date", base::Date::fromUnix(1795233785.9)},
                                       {"flag", true},
                                       {"list", PropertyList::Array{1, "two"}},
                                       {"real", 0.5},
                                       {"data", PropertyList::Data{std::byte{0x0f}, std::byte{0xff}}},
                                       {"none", PropertyList::Array{}}};
  EXPECT_EQ(cli::jsonText(value),
            "{\"data\": \"0fff\", \"date\": \"2026-11-21T04:03:05Z\", \"flag\": true, \"list\": [\n"
            "  1,\n"
            "  \"two\"\n"
            "], \"none\": [], \"real\": 0.5}\n");
}

TEST(JsonText, escapesWhatTextsMayNotHold) {
  EXPECT_EQ(cli::jsonText("a\"b\\c\n\x01\x7f/\xc2\x85 grün"),
            "\"a\\\"b\\\\c\\u000a\\u0001\\u007f/\\u0085 grün\"\n");
}

TEST(JsonText, replacesWhatIsNoUTF8) {
  EXPECT_EQ(cli::jsonText("a\xff\xc3"), "\"a\xef\xbf\xbd\xef\xbf\xbd\"\n");
}

TEST(ShownText, cannotMoveTheCursor) { EXPECT_EQ(cli::shownText("a\x1b[2J\n\xff"), "a?[2J?\xef\xbf\xbd"); }

TEST(TableText, alignsColumnsByCharacters) {
  EXPECT_EQ(cli::tableText({{"NAME", "SIZE", "X"}, {"grün", "1", "y"}, {"b", "22222", ""}}, {1}),
            "NAME   SIZE  X\n"
            "grün      1  y\n"
            "b     22222  \n");
}

TEST(CountText, knowsOneFromMany) {
  EXPECT_EQ(cli::countText(1, "item"), "1 item");
  EXPECT_EQ(cli::countText(0, "item"), "0 items");
}

}  // namespace
