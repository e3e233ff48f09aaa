#include "image/hfs/unicode_name.h"

#include <algorithm>
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
  icu::UnicodeString composed(false, storedName.data(), static_cast<std::int32_t>(storedName.size()));
  if (const auto* composer = icu::Normalizer2::getNFCInstance(status); U_SUCCESS(status))
    composed = composer->normalize(composed, status);
  if (U_FAILURE(status))
    composed.setTo(false, storedName.data(), static_cast<std::int32_t>(storedName.size()));
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
