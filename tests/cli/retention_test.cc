#include "cli/retention.h"

#include <cstdlib>
#include <ctime>
#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;

class Retention : public testing::Test {
 protected:
  Retention() { inZone("UTC"); }
  static void inZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  static base::Date at(double day, double hour) {
    constexpr double kFirstOfNovember = 1793491200;  // 2026
    return base::Date::fromUnix(kFirstOfNovember + (day - 1) * 86400 + hour * 3600);
  }
};

TEST_F(Retention, keepsNothingThatWasNotAskedFor) {
  EXPECT_THAT(cli::reasonsToKeep({at(1, 8), at(2, 8)}, {}), ElementsAre("", ""));
}

TEST_F(Retention, keepsTheLastOnes) {
  EXPECT_THAT(cli::reasonsToKeep({at(1, 8), at(2, 8), at(3, 8)}, {.last = 2}),
              ElementsAre("", "one of the last 2", "one of the last 2"));
}

TEST_F(Retention, keepsTheNewestOfEachOfTheLastDaysThatHaveBackups) {
  EXPECT_THAT(cli::reasonsToKeep({at(1, 8), at(5, 8), at(5, 9), at(9, 8)}, {.daily = 2}),
              ElementsAre("", "", "newest of 2026-11-05", "newest of 2026-11-09"));
}

TEST_F(Retention, keepsTheNewestOfEachMonth) {
  EXPECT_THAT(cli::reasonsToKeep({at(-40, 8), at(-2, 8), at(1, 8), at(9, 8)}, {.monthly = 2}),
              ElementsAre("", "newest of 2026-10", "", "newest of 2026-11"));
}

TEST_F(Retention, namesEveryReason) {
  EXPECT_THAT(cli::reasonsToKeep({at(9, 8)}, {.last = 1, .daily = 1, .monthly = 1}),
              ElementsAre("one of the last 1, newest of 2026-11-09, newest of 2026-11"));
}

TEST_F(Retention, takesDaysByLocalTime) {
  inZone("UTC-2");  // two hours ahead
  EXPECT_THAT(cli::reasonsToKeep({at(5, 21), at(5, 23)}, {.daily = 2}),
              ElementsAre("newest of 2026-11-05", "newest of 2026-11-06"));
}

}  // namespace
