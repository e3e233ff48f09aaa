#include "image/hfs/unicode_name.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <unicode/normalizer2.h>
#include <unicode/uniset.h>
#include <unicode/unistr.h>

#include "base/unicode.h"
#include "image/hfs/case_fold.h"

namespace image::hfs {
namespace {

// Null where the library's data is missing, in which case only ASCII names are stored as they are.
const icu::Normalizer2* decomposer() {
  static const auto filtered = []() -> std::unique_ptr<icu::FilteredNormalizer2> {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    static icu::UnicodeSet decomposed(
        icu::UnicodeString(u"[[:age=3.2:]-[\\u2000-\\u2FFF]-[\\uF900-\\uFAFF]-[\\U0002F800-\\U0002FAFF]]"),
        status);
    if (U_FAILURE(status)) return nullptr;
    decomposed.freeze();
    return std::make_unique<icu::FilteredNormalizer2>(*nfd, decomposed);
  }();
  return filtered.get();
}

template <class Char>
bool isASCII(std::basic_string_view<Char> text) {
  return std::ranges::all_of(text, [](Char c) { return static_cast<char32_t>(c) < 0x80; });
}

bool isUTF8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto character = base::decodeUTF8(text, at);
    if (!character.valid) return false;
    at += character.length;
  }
  return true;
}

std::optional<std::u16string> decompose(std::u16string_view name) {
  const auto* library = decomposer();
  if (library == nullptr) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString text(false, name.data(), static_cast<std::int32_t>(name.size()));
  const icu::UnicodeString result = library->normalize(text, status);
  if (U_FAILURE(status)) return std::nullopt;
  return std::u16string(result.getBuffer(), static_cast<std::size_t>(result.length()));
}

struct Respelling {
  std::u16string_view old;
  char16_t now;
};

// What old systems, and others that still go by TN1150's table, store for letters that decompose in other
// ways today, or not at all.
constexpr Respelling kOldSpellings[]{
    {u"\u018F\u0308", u'\u04DA'}, {u"\u0259\u0308", u'\u04DB'}, {u"\u019F\u0308", u'\u04EA'},
    {u"\u0275\u0308", u'\u04EB'}, {u"\u0E4D\u0E32", u'\u0E33'}, {u"\u0ECD\u0EB2", u'\u0EB3'},
};

// Whether a line above at that place is the accent of a Greek letter.
bool isGreekAccent(std::u16string_view name, std::size_t at) {
  constexpr char16_t kLineAbove = u'\u030D';
  constexpr char16_t kDiaeresisAbove = u'\u0308';
  constexpr char16_t kDiaeresis = u'\u00A8';
  if (name[at] != kLineAbove) return false;
  while (at > 0 && name[at - 1] == kDiaeresisAbove) --at;
  return at > 0 && ((name[at - 1] >= u'\u0370' && name[at - 1] <= u'\u03FF') || name[at - 1] == kDiaeresis);
}

std::u16string respelled(std::u16string_view name) {
  constexpr char16_t kAcute = u'\u0301';
  std::u16string made;
  for (std::size_t at = 0; at < name.size();) {
    const auto isHere = [&](const Respelling& spelling) {
      return name.substr(at, spelling.old.size()) == spelling.old;
    };
    const auto* const found = std::ranges::find_if(kOldSpellings, isHere);
    if (found != std::end(kOldSpellings))
      made += found->now;
    else
      made += isGreekAccent(name, at) ? kAcute : name[at];
    at += found != std::end(kOldSpellings) ? found->old.size() : 1;
  }
  return made;
}

template <class Char>
void exchangeSeparators(std::basic_string<Char>& name, Char from, Char to) {
  std::ranges::replace(name, from, to);
}

}  // namespace

std::optional<std::u16string> storedName(std::string_view fileName) {
  if (fileName.empty() || !isUTF8(fileName)) return std::nullopt;
  std::optional<std::u16string> name = base::utf16FromUTF8(fileName);
  if (!isASCII(fileName)) name = decompose(*name);
  if (!name || name->size() > kMaxNameUnits) return std::nullopt;
  exchangeSeparators(*name, u':', u'/');
  return name;
}

std::string composedFileName(std::u16string_view storedName) {
  if (isASCII(storedName)) {
    std::string name(storedName.size(), '\0');
    std::ranges::transform(storedName, name.begin(),
                           [](char16_t unit) { return unit == u'/' ? ':' : static_cast<char>(unit); });
    return name;
  }
  UErrorCode status = U_ZERO_ERROR;
  const std::u16string spelled = respelled(storedName);
  icu::UnicodeString composed(spelled.data(), static_cast<std::int32_t>(spelled.size()));
  if (const auto* composer = icu::Normalizer2::getNFCInstance(status); U_SUCCESS(status))
    composed = composer->normalize(composed, status);
  if (U_FAILURE(status)) composed.setTo(false, spelled.data(), static_cast<std::int32_t>(spelled.size()));
  std::string name = base::utf8FromUTF16({composed.getBuffer(), static_cast<std::size_t>(composed.length())});
  exchangeSeparators(name, '/', ':');
  return name;
}

std::u16string foldedName(std::u16string_view name) {
  std::u16string folded;
  folded.reserve(name.size());
  for (const char16_t unit : name)
    if (const char16_t lower = foldCase(unit); lower != 0) folded.push_back(lower);
  return folded;
}

std::strong_ordering compareNames(std::u16string_view a, std::u16string_view b, NameOrder order) {
  if (order == NameOrder::binary) return a <=> b;
  std::size_t i = 0;
  std::size_t j = 0;
  const auto next = [](std::u16string_view name, std::size_t& at) -> char16_t {
    while (at < name.size())
      if (const char16_t unit = foldCase(name[at++]); unit != 0) return unit;
    return 0;
  };
  while (true) {
    const char16_t left = next(a, i);
    const char16_t right = next(b, j);
    if (left != right || left == 0) return left <=> right;
  }
}

}  // namespace image::hfs
