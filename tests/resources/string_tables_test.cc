#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/resources/resource_files.h"

namespace resources_test {
namespace {

const std::vector<std::string> kLanguages = {"ar", "de", "en", "es", "fr", "it",
                                             "ja", "ko", "nl", "pl", "pt", "zh-Hans"};

// Language and key of the texts that happen to read the same in English.
const std::set<std::pair<std::string, std::string>> kSameAsInEnglish = {{"nl", "Later"}};

std::vector<std::string> keysOf(const StringTable& table) {
  std::vector<std::string> keys;
  for (const auto& [key, text] : table) keys.push_back(key);
  return keys;
}

// Every percent sign with the character after it, in order.
std::vector<std::string> conversionsOf(std::string_view text) {
  std::vector<std::string> conversions;
  for (auto at = text.find('%'); at != text.npos; at = text.find('%', at + 1))
    conversions.emplace_back(text.substr(at, 2));
  return conversions;
}

bool namesTheProduct(std::string_view text) { return text.find("Stashwick") != text.npos; }

TEST(StringTables, areThereForEveryLanguageAndNoOther) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(sourceFolder() / "resources"))
    if (entry.path().extension() == ".lproj") found.push_back(entry.path().stem());
  EXPECT_THAT(found, testing::UnorderedElementsAreArray(kLanguages));
}

TEST(EnglishStringTable, saysItsKeys) {
  for (const auto& [key, text] : readStringTable("en")) EXPECT_EQ(text, key);
}

TEST(EnglishStringTable, hasNoConversionThatIsNotFilledWithAText) {
  for (const auto& [key, text] : readStringTable("en"))
    EXPECT_THAT(conversionsOf(key), testing::Each("%@")) << key;
}

class StringTableOf : public testing::TestWithParam<std::string> {};

TEST_P(StringTableOf, hasTheKeysOfTheEnglishTable) {
  EXPECT_EQ(keysOf(readStringTable(GetParam())), keysOf(readStringTable("en")));
}

TEST_P(StringTableOf, keepsTheConversionsOfItsKeys) {
  for (const auto& [key, text] : readStringTable(GetParam()))
    EXPECT_EQ(conversionsOf(text), conversionsOf(key));
}

TEST_P(StringTableOf, keepsTheProductName) {
  for (const auto& [key, text] : readStringTable(GetParam()))
    EXPECT_EQ(namesTheProduct(text), namesTheProduct(key)) << key;
}

TEST_P(StringTableOf, hasNoEmptyText) {
  for (const auto& [key, text] : readStringTable(GetParam())) EXPECT_NE(text, "") << key;
}

class TranslationTo : public testing::TestWithParam<std::string> {};

TEST_P(TranslationTo, leavesNoTextInEnglish) {
  for (const auto& [key, text] : readStringTable(GetParam()))
    EXPECT_EQ(text == key, kSameAsInEnglish.contains({GetParam(), key})) << key;
}

TEST_P(TranslationTo, quotesAsItsLanguageDoes) {
  for (const auto& [key, text] : readStringTable(GetParam()))
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("\"")));
}

std::string testName(const testing::TestParamInfo<std::string>& language) {
  std::string name = language.param;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

std::vector<std::string> translations() {
  std::vector<std::string> languages = kLanguages;
  std::erase(languages, "en");
  return languages;
}

INSTANTIATE_TEST_SUITE_P(, StringTableOf, testing::ValuesIn(kLanguages), testName);
INSTANTIATE_TEST_SUITE_P(, TranslationTo, testing::ValuesIn(translations()), testName);

}  // namespace
}  // namespace resources_test
