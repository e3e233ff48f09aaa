#include "platform/posix/locale_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using platform::posix::LocaleSettings;
using testing::ElementsAre;

namespace {

TEST(LocaleSettings, isEnglishWhereNothingIsSet) {
  for (const auto* name : {"", "C", "POSIX", "C.UTF-8"}) {
    const auto settings = LocaleSettings::from({.lang = name});
    EXPECT_THAT(settings.languages, ElementsAre("en")) << name;
    EXPECT_EQ(settings.dateLocale, "en");
  }
}

TEST(LocaleSettings, takesTheVariablesInTheOrderOfTheCLibrary) {
  EXPECT_THAT(LocaleSettings::from({.lcMessages = "fr_FR.UTF-8", .lang = "de_DE"}).languages,
              ElementsAre("fr-FR"));
  EXPECT_THAT(
      LocaleSettings::from({.lcAll = "it_IT", .lcMessages = "fr_FR.UTF-8", .lang = "de_DE"}).languages,
      ElementsAre("it-IT"));
  EXPECT_THAT(LocaleSettings::from({.lcAll = "C", .lcMessages = "fr_FR", .lang = "de_DE"}).languages,
              ElementsAre("en"));
}

TEST(LocaleSettings, putsTheListOfLanguagesFirst) {
  EXPECT_THAT(LocaleSettings::from({.language = "pt_BR:fr::de_DE", .lang = "de_DE.UTF-8"}).languages,
              ElementsAre("pt-BR", "fr", "de-DE"));
}

TEST(LocaleSettings, passesTheListOfLanguagesOverInTheLocaleC) {
  EXPECT_THAT(LocaleSettings::from({.language = "fr", .lang = "C"}).languages, ElementsAre("en"));
}

TEST(LocaleSettings, readsModifiersThatMeanAScript) {
  EXPECT_THAT(LocaleSettings::from({.lang = "sr_RS.UTF-8@latin"}).languages, ElementsAre("sr-Latn-RS"));
  EXPECT_THAT(LocaleSettings::from({.lang = "de_DE@euro"}).languages, ElementsAre("de-DE"));
}

TEST(LocaleSettings, passesRubbishOver) {
  EXPECT_THAT(LocaleSettings::from({.language = "x:../../etc:d\xC3\xA9:fr_..", .lang = "de_12345"}).languages,
              ElementsAre("fr", "de"));
  EXPECT_THAT(LocaleSettings::from({.lang = "/usr/share/locale"}).languages, ElementsAre("en"));
}

TEST(LocaleSettings, writesDatesInTheFirstLanguageAndTheRegionOfTime) {
  EXPECT_EQ(LocaleSettings::from({.lang = "de_AT"}).dateLocale, "de-AT");
  EXPECT_EQ(LocaleSettings::from({.lcTime = "de_DE.UTF-8", .lang = "en_US.UTF-8"}).dateLocale, "en-DE");
  EXPECT_EQ(LocaleSettings::from({.lcTime = "C", .lang = "en_GB.UTF-8"}).dateLocale, "en-GB");
  EXPECT_EQ(LocaleSettings::from({.lcAll = "fr_FR", .lcTime = "de_DE", .lang = "en_US"}).dateLocale, "fr-FR");
  EXPECT_EQ(LocaleSettings::from({.language = "fr", .lang = "de_DE"}).dateLocale, "fr-DE");
}

}  // namespace
