#include "platform/embedded/terminal_text.h"

#include <gtest/gtest.h>

namespace platform::embedded {
namespace {

TEST(ShownText, keepsTextAndLineFeeds) { EXPECT_EQ(shownText("für\n日本"), "für\n日本"); }

TEST(ShownText, takesTheMeaningOfControlCharactersAway) {
  EXPECT_EQ(shownText("a\x1B[2Jb\rc\x07\x7F\t"), "a?[2Jb?c???");
  EXPECT_EQ(shownText("\xC2\x9B"
                      "2J"),
            "?2J")
      << "the one-character form of an escape sequence";
}

TEST(ShownText, replacesWhatIsNoUTF8) { EXPECT_EQ(shownText("a\xFF"), "a\xEF\xBF\xBD"); }

TEST(WrappedText, breaksLinesAtBlanks) {
  EXPECT_EQ(wrappedText("one two three", 7), "one two\nthree");
  EXPECT_EQ(wrappedText("one two three", 80), "one two three");
}

TEST(WrappedText, countsCharactersAndNotBytes) { EXPECT_EQ(wrappedText("äöü äöü", 7), "äöü äöü"); }

TEST(WrappedText, keepsALongWordAndLineFeeds) {
  EXPECT_EQ(wrappedText("a 1234567890 b\nc", 4), "a\n1234567890\nb\nc");
}

}  // namespace
}  // namespace platform::embedded
