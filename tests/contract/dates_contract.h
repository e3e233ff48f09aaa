#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "ports/dates.h"

namespace contract {

// What the clock and the texts of dates keep to on every host. A fixture has
//   ports::Dates& dates();   of a user who reads English
template <class Fixture>
class DatesContract : public testing::Test {
 protected:
  ports::Dates& dates() { return fixture.dates(); }
  static base::Date later(base::Date date, double seconds) {
    return {date.secondsSinceReferenceDate + seconds};
  }

  // 2020-09-13 12:26:40 UTC, which is the 13th in all but the easternmost time zones.
  const base::Date aSunday = base::Date::fromUnix(1600000000);
  Fixture fixture;
};
TYPED_TEST_SUITE_P(DatesContract);

TYPED_TEST_P(DatesContract, neverGoesBack) {
  const auto before = this->dates().now();
  EXPECT_GT(before, this->aSunday);
  EXPECT_LE(before, this->dates().now());
}

TYPED_TEST_P(DatesContract, knowsALanguage) {
  const auto languages = this->dates().preferredLanguages();
  ASSERT_FALSE(languages.empty());
  EXPECT_THAT(languages.front(), testing::StartsWith("en"));
}

TYPED_TEST_P(DatesContract, writesMediumDatesAndTimes) {
  const auto text = this->dates().mediumDateAndTime(this->aSunday, "en");
  EXPECT_THAT(text, testing::StartsWith("Sep 13, 2020"));
  EXPECT_THAT(text, testing::HasSubstr(":26:40"));
}

TYPED_TEST_P(DatesContract, tellsSecondsApartInMediumTimes) {
  EXPECT_NE(this->dates().mediumDateAndTime(this->aSunday, "en"),
            this->dates().mediumDateAndTime(this->later(this->aSunday, 1), "en"));
}

TYPED_TEST_P(DatesContract, hasOneBlankBetweenAShortDateAndItsTime) {
  const auto now = this->dates().now();
  for (const double ago : {0.0, 86400.0, 3 * 86400.0, 400 * 86400.0}) {
    const auto text = this->dates().shortRelativeDateAndTime(this->later(now, -ago));
    const auto blank = text.find(' ');
    EXPECT_NE(blank, std::string::npos) << text;
    EXPECT_NE(text.find(':', blank), std::string::npos) << text;
    EXPECT_EQ(text.rfind(' '), blank) << text;
  }
}

TYPED_TEST_P(DatesContract, hasWordsForTodayAndYesterday) {
  const auto now = this->dates().now();
  EXPECT_THAT(this->dates().shortRelativeDateAndTime(now), testing::StartsWith("Today"));
  EXPECT_THAT(this->dates().shortRelativeDateAndTime(this->later(now, -86400)),
              testing::StartsWith("Yesterday"));
}

REGISTER_TYPED_TEST_SUITE_P(DatesContract, neverGoesBack, knowsALanguage, writesMediumDatesAndTimes,
                            tellsSecondsApartInMediumTimes, hasOneBlankBetweenAShortDateAndItsTime,
                            hasWordsForTodayAndYesterday);

}  // namespace contract
