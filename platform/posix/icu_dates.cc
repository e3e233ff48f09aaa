#include "platform/posix/icu_dates.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unicode/ucal.h>
#include <unicode/udat.h>
#include <unicode/uloc.h>
#include <unicode/uversion.h>

#include "base/unicode.h"

namespace platform::posix {
namespace {

struct Styles {
  UDateFormatStyle time;
  UDateFormatStyle date;
  UDisplayContext context = UDISPCTX_CAPITALIZATION_FOR_BEGINNING_OF_SENTENCE;
};

struct CloseFormat {
  void operator()(UDateFormat* format) const { udat_close(format); }
};

std::string localeID(const std::string& languageTag) {
  std::array<char, ULOC_FULLNAME_CAPACITY> id{};
  UErrorCode status = U_ZERO_ERROR;
  const auto length = uloc_forLanguageTag(languageTag.c_str(), id.data(), id.size(), nullptr, &status);
  return U_SUCCESS(status) ? std::string(id.data(), static_cast<std::size_t>(length)) : std::string("en");
}

// The host's zone is asked anew each time: it changes under a process that runs for weeks.
std::u16string zoneID(const std::string& timeZone) {
  if (!timeZone.empty()) return base::utf16FromUTF8(timeZone);
  std::array<UChar, 128> id{};
  UErrorCode status = U_ZERO_ERROR;
  const auto length = ucal_getHostTimeZone(id.data(), id.size(), &status);
  return U_SUCCESS(status) ? std::u16string(id.data(), static_cast<std::size_t>(length)) : u"UTC";
}

// What is left when the locale data cannot be had at all: "2020-09-13 14:26:40", by UTC.
std::string plainText(base::Date date) {
  const auto time = static_cast<std::time_t>(date.unix());
  std::tm fields{};
  ::gmtime_r(&time, &fields);
  std::array<char, 64> text{};
  return std::string(text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &fields));
}

std::string formatted(base::Date date, const std::string& languageTag, const std::string& timeZone,
                      Styles styles) {
  const auto zone = zoneID(timeZone);
  UErrorCode status = U_ZERO_ERROR;
  const std::unique_ptr<UDateFormat, CloseFormat> format(
      udat_open(styles.time, styles.date, localeID(languageTag).c_str(), zone.data(),
                static_cast<std::int32_t>(zone.size()), nullptr, 0, &status));
  if (U_FAILURE(status)) return plainText(date);
  udat_setContext(format.get(), styles.context, &status);
  std::array<UChar, 256> text{};
  const auto length =
      udat_format(format.get(), date.unix() * 1000, text.data(), text.size(), nullptr, &status);
  if (U_FAILURE(status)) return plainText(date);
  return base::utf8FromUTF16({text.data(), static_cast<std::size_t>(length)});
}

std::string withoutPlainBlanks(std::string_view text) {
  constexpr std::string_view kNoBreakSpace = "\u00A0";
  std::string unbroken;
  for (const char c : text) c == ' ' ? unbroken += kNoBreakSpace : unbroken += c;
  return unbroken;
}

}  // namespace

base::Date IcuDates::now() {
  const std::chrono::duration<double> sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return base::Date::fromUnix(sinceEpoch.count());
}

std::string IcuDates::mediumDateAndTime(base::Date date, const std::string& language) {
  auto text = formatted(date, language, timeZone_, {UDAT_MEDIUM, UDAT_MEDIUM, UDISPCTX_CAPITALIZATION_NONE});
  std::ranges::replace(text, '/', '-');
  return text;
}

std::string IcuDates::shortRelativeDateAndTime(base::Date date) {
  const auto part = [&](Styles styles) {
    return withoutPlainBlanks(formatted(date, settings_.dateLocale, timeZone_, styles));
  };
  return part({UDAT_NONE, UDAT_SHORT_RELATIVE}) + " " + part({UDAT_SHORT, UDAT_NONE});
}

}  // namespace platform::posix
