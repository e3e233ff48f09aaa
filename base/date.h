#pragma once

#include <compare>

namespace base {

// A moment: seconds since the reference date, 2001-01-01 00:00:00 UTC.
struct Date {
  double secondsSinceReferenceDate = 0;

  static constexpr double kUnixEpochToReferenceDate = 978307200;
  static constexpr Date fromUnix(double seconds) { return {seconds - kUnixEpochToReferenceDate}; }
  constexpr double unix() const { return secondsSinceReferenceDate + kUnixEpochToReferenceDate; }

  friend constexpr auto operator<=>(Date, Date) = default;
};

}  // namespace base
