#include "tests/resources/looked_up_texts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/resources/resource_files.h"

namespace resources_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(LookedUpTexts, areTheLiteralsOfTheCalls) {
  EXPECT_THAT(
      lookedUpTexts(
          R"(title = bundle.localizedString("Later"); log("Never"); f(localizedString( "Backup" ));)"),
      ElementsAre("Backup", "Later"));
}

TEST(LookedUpTexts, haveTheirEscapesResolved) {
  EXPECT_THAT(lookedUpTexts(R"(localizedString("Backup \"%@\"?"))"), ElementsAre("Backup \"%@\"?"));
  EXPECT_THAT(lookedUpTexts(R"(localizedString("a\\b\n"))"), ElementsAre("a\\b\n"));
  EXPECT_THAT(lookedUpTexts(R"(localizedString("\x41"))"), ElementsAre("\\x41"));
}

TEST(LookedUpTexts, joinAdjacentLiteralsOverLines) {
  EXPECT_THAT(lookedUpTexts("localizedString(\n    \"one \"\n    \"two\" R\"(\"three\")\")"),
              ElementsAre("one two\"three\""));
}

TEST(LookedUpTexts, mayBeRawLiterals) {
  EXPECT_THAT(lookedUpTexts("localizedString(R\"x(say \"(hi)\")x\"), localizedString(\"next\")"),
              ElementsAre("next", "say \"(hi)\""));
}

TEST(LookedUpTexts, includeBothSidesOfAChoice) {
  EXPECT_THAT(lookedUpTexts(R"(localizedString(is(type) ? "Backup Failed" : "Restore Failed"), "OK")"),
              ElementsAre("Backup Failed", "Restore Failed"));
}

TEST(LookedUpTexts, areNoneInADeclaration) {
  EXPECT_THAT(lookedUpTexts("std::string localizedString(std::string_view key) const; auto x = \"text\";"),
              IsEmpty());
}

TEST(LookedUpTexts, endWithTheSource) {
  EXPECT_THAT(lookedUpTexts("localizedString(\"cut"), IsEmpty());
  EXPECT_THAT(lookedUpTexts("localizedString(\"cut\\"), IsEmpty());
  EXPECT_THAT(lookedUpTexts("localizedString(R\"x(cut)\""), IsEmpty());
}

std::set<std::string, std::less<>> textsOfTheAgent() {
  std::set<std::string, std::less<>> texts;
  for (const char* folder : {"app", "engine", "store", "platform"})
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sourceFolder() / folder))
      if (entry.path().extension() == ".cc" || entry.path().extension() == ".h")
        texts.merge(lookedUpTexts(readFile(entry.path())));
  return texts;
}

TEST(TextsOfTheAgent, areAllInTheStringTable) {
  const StringTable table = readStringTable("en");
  const auto texts = textsOfTheAgent();
  EXPECT_THAT(texts, testing::Not(IsEmpty()));
  for (const auto& text : texts) EXPECT_TRUE(table.contains(text)) << text;
}

TEST(TextsOfTheAgent, areAllThatTheStringTableHolds) {
  const auto texts = textsOfTheAgent();
  for (const auto& [key, text] : readStringTable("en")) EXPECT_TRUE(texts.contains(key)) << key;
}

}  // namespace
}  // namespace resources_test
