#include "platform/posix/icu_dates.h"

#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <unicode/uloc.h>

using base::Date;
using platform::posix::IcuDates;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr double kDay = 86400;
const Date kAfternoon = Date::fromUnix(1600007200);  // 2020-09-13 14:26:40 UTC

IcuDates datesIn(const std::string& language, const std::string& timeZone = "UTC") {
  return IcuDates({{language}, language}, timeZone);
}

std::string relative(const std::string& language, double daysAgo) {
  auto dates = datesIn(language);
  return dates.shortRelativeDateAndTime({dates.now().secondsSinceReferenceDate - daysAgo * kDay});
}

std::vector<std::string> allLanguageTags() {
  std::vector<std::string> tags;
  for (int i = 0; i < uloc_countAvailable(); ++i) {
    std::array<char, ULOC_FULLNAME_CAPACITY> tag{};
    UErrorCode status = U_ZERO_ERROR;
    uloc_toLanguageTag(uloc_getAvailable(i), tag.data(), tag.size(), false, &status);
    tags.emplace_back(tag.data());
  }
  return tags;
}

TEST(MediumDateAndTime, isInTheLanguagesOwnWay) {
  auto dates = datesIn("en");
  EXPECT_THAT(dates.mediumDateAndTime(kAfternoon, "en-US"), StartsWith("Sep 13, 2020, 2:26:40"));
  EXPECT_EQ(dates.mediumDateAndTime(kAfternoon, "en-GB"), "13 Sept 2020, 14:26:40");
  EXPECT_EQ(dates.mediumDateAndTime(kAfternoon, "de-DE"), "13.09.2020, 14:26:40");
  EXPECT_EQ(dates.mediumDateAndTime(kAfternoon, "fr-FR"), "13 sept. 2020, 14:26:40");
}

TEST(MediumDateAndTime, isInTheTimeZone) {
  EXPECT_EQ(datesIn("de", "Asia/Tokyo").mediumDateAndTime(kAfternoon, "de"), "13.09.2020, 23:26:40");
}

TEST(MediumDateAndTime, hasADashWhereTheLanguageHasASlash) {
  EXPECT_EQ(datesIn("ja").mediumDateAndTime(kAfternoon, "ja-JP"), "2020-09-13 14:26:40");
}

TEST(MediumDateAndTime, isAFileNameInEveryLanguage) {
  const auto tags = allLanguageTags();
  ASSERT_GT(tags.size(), 500u);
  auto dates = datesIn("en");
  for (const auto& tag : tags) {
    for (const auto date : {kAfternoon, Date{0}, Date::fromUnix(1e9)}) {
      const auto text = dates.mediumDateAndTime(date, tag);
      const auto breaks = [](unsigned char c) { return c < 0x20 || c == 0x7F || c == '/'; };
      EXPECT_TRUE(std::ranges::none_of(text, breaks)) << tag << " " << text;
      EXPECT_GE(text.size(), 12u) << tag << " " << text;
      // A file name of 255 bytes with the longest ending that is put behind it.
      EXPECT_LE(text.size(), 255 - std::string_view(".manifest").size()) << tag << " " << text;
      EXPECT_NE(text.front(), '.') << tag;
    }
  }
}

TEST(MediumDateAndTime, isOfUseForALanguageThatNobodyKnows) {
  for (const auto* tag : {"", "xx-YY", "not a tag"}) {
    EXPECT_THAT(datesIn("en").mediumDateAndTime(kAfternoon, tag), HasSubstr("2020")) << tag;
  }
}

TEST(ShortRelativeDateAndTime, hasTheLanguagesWordsForTodayAndYesterday) {
  EXPECT_THAT(relative("en-US", 0), StartsWith("Today "));
  EXPECT_THAT(relative("en-US", 1), StartsWith("Yesterday "));
  EXPECT_THAT(relative("de-DE", 0), StartsWith("Heute "));
  EXPECT_THAT(relative("de-DE", 1), StartsWith("Gestern "));
  EXPECT_THAT(relative("fr-FR", 1), StartsWith("Hier "));
  EXPECT_THAT(relative("ja-JP", 0), StartsWith("今日 "));
}

TEST(ShortRelativeDateAndTime, isShortForOlderDates) {
  EXPECT_THAT(datesIn("en-US").shortRelativeDateAndTime(kAfternoon), StartsWith("9/13/20 2:26"));
  EXPECT_EQ(datesIn("de-DE").shortRelativeDateAndTime(kAfternoon), "13.09.20 14:26");
  EXPECT_EQ(datesIn("en-GB").shortRelativeDateAndTime(kAfternoon), "13/09/2020 14:26");
}

TEST(ShortRelativeDateAndTime, writesTheFirstLanguageInTheWayOfAnotherRegion) {
  IcuDates dates({{"en-US"}, "en-DE"}, "UTC");
  EXPECT_EQ(dates.shortRelativeDateAndTime(kAfternoon), "13/09/2020 14:26");
}

TEST(ShortRelativeDateAndTime, hasOnePlainBlankBetweenDateAndTimeInEveryLanguage) {
  for (const auto& tag : allLanguageTags()) {
    for (const double daysAgo : {0.0, 1.0, 400.0}) {
      const auto text = relative(tag, daysAgo);
      const auto blank = text.find(' ');
      ASSERT_NE(blank, text.npos) << tag << " " << text;
      EXPECT_GT(blank, 0u) << tag << " " << text;
      EXPECT_LT(blank + 1, text.size()) << tag << " " << text;
      EXPECT_EQ(text.find(' ', blank + 1), text.npos) << tag << " " << text;
    }
  }
}

TEST(IcuDates, readsTheClock) {
  IcuDates dates;
  const auto before = dates.now();
  EXPECT_GT(before.unix(), 1.7e9);
  EXPECT_GE(dates.now(), before);
}

TEST(IcuDates, knowsItsLanguages) {
  EXPECT_THAT(IcuDates({{"pt-BR", "en"}, "pt-BR"}).preferredLanguages(), testing::ElementsAre("pt-BR", "en"));
}

}  // namespace
