#pragma once

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/binary_property_list.h"
#include "ports/archives.h"
#include "tests/contract/real_files.h"

namespace contract {

class Note : public base::Codable {
 public:
  std::string_view className() const override { return "Note"; }
  void encodeWithCoder(base::KeyedEncoder& coder) const override {
    coder.encodeString("text", "grüße");
    coder.encodeInteger("number", -7);
    coder.encodeString("nothing", std::nullopt);
  }
};

// What archives keep to on every host. A fixture has
//   ports::Archives& archives();
//   std::string folder();                      the logical path of an empty folder that tests may fill
//   std::filesystem::path real(logicalPath);   where that is
//   std::vector<std::string> logged();         the lines of the system log so far
template <class Fixture>
class ArchivesContract : public testing::Test {
 protected:
  ports::Archives& archives() { return fixture.archives(); }
  std::string at(const std::string& name) { return fixture.folder() + "/" + name; }
  std::filesystem::path real(const std::string& name) { return fixture.real(at(name)); }
  std::vector<std::string> names() { return namesIn(fixture.real(fixture.folder())); }
  auto oneLineThatNames(const std::string& name) { return testing::ElementsAre(testing::HasSubstr(name)); }

  const base::PropertyList::Dictionary dictionary{
      {"5A17C0DE-0000-4000-8000-000000000001", 1}, {"other", -1}, {"text", "a < b & \"c\""}, {"yes", true}};
  Fixture fixture;
};
TYPED_TEST_SUITE_P(ArchivesContract);

TYPED_TEST_P(ArchivesContract, readsBackTheDictionaryThatItWrote) {
  ASSERT_TRUE(this->archives().writeDictionary(this->dictionary, this->at("list.plist")));
  EXPECT_EQ(this->archives().dictionaryWithContentsOfFile(this->at("list.plist")), this->dictionary);
  EXPECT_THAT(this->fixture.logged(), testing::IsEmpty());
}

TYPED_TEST_P(ArchivesContract, writesXML) {
  ASSERT_TRUE(this->archives().writeDictionary(this->dictionary, this->at("list.plist")));
  EXPECT_THAT(readRealFile(this->real("list.plist")), testing::StartsWith("<?xml"));
}

TYPED_TEST_P(ArchivesContract, readsABinaryDictionary) {
  const auto bytes = base::writeBinaryPropertyList(this->dictionary);
  writeRealFile(this->real("list.plist"), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  EXPECT_EQ(this->archives().dictionaryWithContentsOfFile(this->at("list.plist")), this->dictionary);
}

TYPED_TEST_P(ArchivesContract, isSilentAboutADictionaryThatIsNotThere) {
  EXPECT_EQ(this->archives().dictionaryWithContentsOfFile(this->at("none.plist")), std::nullopt);
  EXPECT_THAT(this->fixture.logged(), testing::IsEmpty());
}

TYPED_TEST_P(ArchivesContract, saysWhichPropertyListItCannotRead) {
  writeRealFile(this->real("broken.plist"), "no property list");
  EXPECT_EQ(this->archives().dictionaryWithContentsOfFile(this->at("broken.plist")), std::nullopt);
  EXPECT_THAT(this->fixture.logged(), this->oneLineThatNames("broken.plist"));
}

TYPED_TEST_P(ArchivesContract, readsNoDictionaryFromAFolder) {
  std::filesystem::create_directory(this->real("folder.plist"));
  EXPECT_EQ(this->archives().dictionaryWithContentsOfFile(this->at("folder.plist")), std::nullopt);
  EXPECT_THAT(this->fixture.logged(), this->oneLineThatNames("folder.plist"));
}

TYPED_TEST_P(ArchivesContract, readsNoDictionaryWhereTheRootIsAnother) {
  const auto bytes = base::writeBinaryPropertyList(base::PropertyList::Array{1, 2});
  writeRealFile(this->real("array.plist"), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  EXPECT_EQ(this->archives().dictionaryWithContentsOfFile(this->at("array.plist")), std::nullopt);
  EXPECT_THAT(this->fixture.logged(), this->oneLineThatNames("array.plist"));
}

TYPED_TEST_P(ArchivesContract, replacesADictionaryAndLeavesNothingBeside) {
  ASSERT_TRUE(this->archives().writeDictionary({{"old", 1}}, this->at("list.plist")));
  ASSERT_TRUE(this->archives().writeDictionary(this->dictionary, this->at("list.plist")));
  EXPECT_EQ(this->archives().dictionaryWithContentsOfFile(this->at("list.plist")), this->dictionary);
  EXPECT_THAT(this->names(), testing::ElementsAre("list.plist"));
}

TYPED_TEST_P(ArchivesContract, keepsAnUnreadableDictionaryUnderAnotherName) {
  writeRealFile(this->real("list.plist"), "what the user may still want");
  ASSERT_TRUE(this->archives().writeDictionary(this->dictionary, this->at("list.plist")));
  EXPECT_EQ(this->archives().dictionaryWithContentsOfFile(this->at("list.plist")), this->dictionary);
  auto kept = this->names();
  std::erase(kept, "list.plist");
  ASSERT_EQ(kept.size(), 1U);
  EXPECT_EQ(readRealFile(this->real(kept[0])), "what the user may still want");
}

TYPED_TEST_P(ArchivesContract, keepsEachOfTwoUnreadableDictionaries) {
  for (const char* contents : {"first", "second"}) {
    writeRealFile(this->real("list.plist"), contents);
    ASSERT_TRUE(this->archives().writeDictionary(this->dictionary, this->at("list.plist")));
  }
  std::vector<std::string> kept;
  for (const auto& name : this->names()) {
    if (name != "list.plist") kept.push_back(readRealFile(this->real(name)));
  }
  EXPECT_THAT(kept, testing::UnorderedElementsAre("first", "second"));
}

TYPED_TEST_P(ArchivesContract, makesNoFolderForADictionary) {
  EXPECT_FALSE(this->archives().writeDictionary(this->dictionary, this->at("none/list.plist")));
  EXPECT_THAT(this->names(), testing::IsEmpty());
}

TYPED_TEST_P(ArchivesContract, leavesAFolderAloneThatIsInTheWay) {
  std::filesystem::create_directory(this->real("list.plist"));
  writeRealFile(this->real("list.plist") / "inside", "");
  EXPECT_FALSE(this->archives().writeDictionary(this->dictionary, this->at("list.plist")));
  EXPECT_TRUE(std::filesystem::exists(this->real("list.plist") / "inside"));
  EXPECT_THAT(this->names(), testing::ElementsAre("list.plist"));
}

TYPED_TEST_P(ArchivesContract, readsBackTheObjectThatItArchived) {
  ASSERT_TRUE(this->archives().archiveRootObject(Note(), this->at("note.manifest")));
  const auto root = this->archives().unarchiveObjectWithFile(this->at("note.manifest"));
  ASSERT_TRUE(root.has_value()) << testing::PrintToString(this->fixture.logged());
  EXPECT_EQ(root->className(), "Note");
  EXPECT_EQ(root->decodeString("text"), "grüße");
  EXPECT_EQ(root->decodeInteger("number"), -7);
  EXPECT_TRUE(root->containsValue("nothing"));
  EXPECT_THAT(this->names(), testing::ElementsAre("note.manifest"));
}

TYPED_TEST_P(ArchivesContract, archivesNothingWhereThereIsNoFolder) {
  EXPECT_FALSE(this->archives().archiveRootObject(Note(), this->at("none/note.manifest")));
  EXPECT_THAT(this->names(), testing::IsEmpty());
}

TYPED_TEST_P(ArchivesContract, isSilentAboutAnArchiveThatIsNotThere) {
  EXPECT_FALSE(this->archives().unarchiveObjectWithFile(this->at("none.manifest")).has_value());
  EXPECT_THAT(this->fixture.logged(), testing::IsEmpty());
}

TYPED_TEST_P(ArchivesContract, saysWhichArchiveItCannotRead) {
  writeRealFile(this->real("broken.manifest"), "no archive");
  EXPECT_FALSE(this->archives().unarchiveObjectWithFile(this->at("broken.manifest")).has_value());
  EXPECT_THAT(this->fixture.logged(), this->oneLineThatNames("broken.manifest"));
}

TYPED_TEST_P(ArchivesContract, readsNoObjectFromAPropertyListThatIsNoArchive) {
  const auto bytes = base::writeBinaryPropertyList(this->dictionary);
  writeRealFile(this->real("list.manifest"), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  EXPECT_FALSE(this->archives().unarchiveObjectWithFile(this->at("list.manifest")).has_value());
  EXPECT_THAT(this->fixture.logged(), this->oneLineThatNames("list.manifest"));
}

REGISTER_TYPED_TEST_SUITE_P(ArchivesContract, readsBackTheDictionaryThatItWrote, writesXML,
                            readsABinaryDictionary, isSilentAboutADictionaryThatIsNotThere,
                            saysWhichPropertyListItCannotRead, readsNoDictionaryFromAFolder,
                            readsNoDictionaryWhereTheRootIsAnother, replacesADictionaryAndLeavesNothingBeside,
                            keepsAnUnreadableDictionaryUnderAnotherName, keepsEachOfTwoUnreadableDictionaries,
                            makesNoFolderForADictionary, leavesAFolderAloneThatIsInTheWay,
                            readsBackTheObjectThatItArchived, archivesNothingWhereThereIsNoFolder,
                            isSilentAboutAnArchiveThatIsNotThere, saysWhichArchiveItCannotRead,
                            readsNoObjectFromAPropertyListThatIsNoArchive);

}  // namespace contract
