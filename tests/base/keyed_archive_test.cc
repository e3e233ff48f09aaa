#include "base/keyed_archive.h"

#include <gmock/gmock.h>
#include <initializer_list>
#include <limits>
#include <memory>
#include <stdexcept>

#include "base/binary_property_list.h"
#include "tests/base/manifest.h"
#include "tests/base/python.h"

namespace base {
namespace {

using ::testing::HasSubstr;
using Array = PropertyList::Array;
using Bytes = std::vector<std::byte>;
using Dictionary = PropertyList::Dictionary;
using UID = PropertyList::UID;

Result<KeyedDecoder> opened(Bytes bytes) {
  return unarchivedRoot(std::make_shared<MemoryRandomAccess>(std::move(bytes)));
}

KeyedDecoder root(Bytes bytes) {
  auto decoder = opened(std::move(bytes));
  if (!decoder) throw std::runtime_error(decoder.error().message);
  return *decoder;
}

std::string refusal(Bytes bytes) {
  const auto decoder = opened(std::move(bytes));
  return decoder ? "accepted" : decoder.error().message;
}

// An archive whose objects after "$null" are these; the root is number 1.
Bytes archiveOf(Array objects, PropertyList rootUID = UID{1}) {
  objects.insert(objects.begin(), "$null");
  return writeBinaryPropertyList(Dictionary{{"$archiver", "NSKeyedArchiver"},
                                            {"$version", 100000},
                                            {"$top", Dictionary{{"root", rootUID}}},
                                            {"$objects", std::move(objects)}});
}

PropertyList classEntry(std::initializer_list<const char*> chain) {
  return Dictionary{{"$classname", *chain.begin()}, {"$classes", Array(chain.begin(), chain.end())}};
}

// A root with one key, "value", for the object numbered 2; the classes of URLs and arrays are numbers 3
// and 4.
Bytes archiveOfValue(PropertyList value, Array more = {}) {
  Array objects = {Dictionary{{"value", UID{2}}}, std::move(value), classEntry({"NSURL", "NSObject"}),
                   classEntry({"NSArray", "NSObject"})};
  objects.insert(objects.end(), more.begin(), more.end());
  return archiveOf(std::move(objects));
}

// Counts what is asked of it.
class CountedReads : public RandomAccess {
 public:
  explicit CountedReads(Bytes bytes) : bytes_(std::move(bytes)) {}
  std::uint64_t size() const override { return bytes_.size(); }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    ++reads;
    bytesRead += into.size();
    return !broken && bytes_.read(offset, into);
  }

  mutable std::uint64_t reads = 0;
  mutable std::uint64_t bytesRead = 0;
  bool broken = false;

 private:
  MemoryRandomAccess bytes_;
};

TEST(KeyedArchive, comesBackAsItWasArchived) {
  const Manifest manifest = sampleManifest();
  const auto decoder = opened(archived(manifest));
  ASSERT_TRUE(decoder) << decoder.error().message;
  EXPECT_EQ(decoder->className(), "ZQStashwickOperation");
  EXPECT_EQ(manifestFrom(*decoder), manifest);
}

TEST(KeyedArchive, keepsWhatIsAbsentAbsent) {
  const auto decoder = root(archived(Manifest{}));
  EXPECT_EQ(manifestFrom(decoder), Manifest{});
  EXPECT_TRUE(decoder.containsValue("encryption"));
  EXPECT_EQ(decoder.decodeString("encryption"), std::nullopt);
  EXPECT_FALSE(decoder.decodeObject("result"));
  EXPECT_FALSE(decoder.containsValue("password"));
  EXPECT_EQ(decoder.decodeInteger("password"), 0);
  EXPECT_FALSE(decoder.decodeBool("password"));
  EXPECT_EQ(decoder.decodeURL("password"), std::nullopt);
  EXPECT_EQ(decoder.decodeURLs("password"), std::nullopt);
}

TEST(KeyedArchive, hasTheLayoutOfThePlatform) {
  EXPECT_EQ(plistlibComparison(archived(sampleManifest()), R"({
    '$version': 100000, '$archiver': 'NSKeyedArchiver', '$top': {'root': UID(1)}, '$objects': [
      '$null',
      {'format': UID(2), 'encryption': UID(3), 'result': UID(4), '$class': UID(15)},
      'HFS+',
      'AES-256',
      {'files': UID(5), 'path': UID(12), 'bytes': 5000000000, 'ready': True, 'ignoresHiddenFiles': True,
       '$class': UID(14)},
      {'NS.objects': [UID(6), UID(9)], '$class': UID(11)},
      {'NS.base': UID(0), 'NS.relative': UID(7), '$class': UID(8)},
      'file:///Volumes/STICK/a%20b',
      {'$classname': 'NSURL', '$classes': ['NSURL', 'NSObject']},
      {'NS.base': UID(0), 'NS.relative': UID(10), '$class': UID(8)},
      'file:///Volumes/STICK/%C3%A9/',
      {'$classname': 'NSArray', '$classes': ['NSArray', 'NSObject']},
      {'NS.base': UID(0), 'NS.relative': UID(13), '$class': UID(8)},
      'file:///Volumes/STICK/',
      {'$classname': 'ZQStashwickQueryResult', '$classes': ['ZQStashwickQueryResult', 'NSObject']},
      {'$classname': 'ZQStashwickOperation', '$classes': ['ZQStashwickOperation', 'NSObject']}]})"),
            "equal");
}

TEST(KeyedArchive, writesKeysInTheOrderOfTheirEncoding) {
  EXPECT_EQ(plistlibComparison(archived(sampleManifest()),
                               "value if [list(value['$objects'][i]) for i in (1, 4)] == "
                               "[['format', 'encryption', 'result', '$class'], "
                               "['files', 'path', 'bytes', 'ready', 'ignoresHiddenFiles', '$class']] else 0"),
            "equal");
}

TEST(KeyedArchive, readsWhatOtherWritersLayOut) {
  EXPECT_EQ(manifestFrom(root(corpus("manifest_mutable_array.manifest"))), sampleManifest());
}

TEST(KeyedArchive, readsTheFirstVersionOfAManifest) {
  EXPECT_EQ(manifestFrom(root(corpus("manifest_v1.manifest"))), sampleManifest());
}

TEST(KeyedArchive, storesAnObjectOnceHoweverOftenItIsEncoded) {
  struct Node : Codable {
    std::string_view className() const override { return "Node"; }
    void encodeWithCoder(KeyedEncoder& coder) const override {
      coder.encodeString("name", name);
      coder.encodeObject("first", next);
      coder.encodeObject("second", next);
    }
    std::string name;
    const Codable* next = nullptr;
  };
  Node first, second;
  first.name = "first";
  first.next = &second;
  second.name = "second";
  second.next = &first;
  const auto decoder = root(archivedDataWithRootObject(first));
  EXPECT_EQ(decoder.decodeObject("second")->decodeString("name"), "second");
  EXPECT_EQ(decoder.decodeObject("second")->decodeObject("first")->decodeString("name"), "first");
  EXPECT_EQ(
      plistlibComparison(archivedDataWithRootObject(first), "value if len(value['$objects']) == 6 else 0"),
      "equal");
}

TEST(KeyedArchive, keepsNumbersAndTextsExactly) {
  struct Values : Codable {
    std::string_view className() const override { return "Values"; }
    void encodeWithCoder(KeyedEncoder& coder) const override {
      coder.encodeInteger("smallest", std::numeric_limits<std::int64_t>::min());
      coder.encodeInteger("largest", std::numeric_limits<std::int64_t>::max());
      coder.encodeBool("yes", true);
      coder.encodeBool("no", false);
      coder.encodeString("clé", "\xF0\x9F\x98\x80\xFF");
      coder.encodeString("empty", "");
      coder.encodeURLs("none", {});
    }
  };
  const auto decoder = root(archivedDataWithRootObject(Values()));
  EXPECT_EQ(decoder.decodeInteger("smallest"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(decoder.decodeInteger("largest"), std::numeric_limits<std::int64_t>::max());
  EXPECT_TRUE(decoder.decodeBool("yes"));
  EXPECT_FALSE(decoder.decodeBool("no"));
  EXPECT_TRUE(decoder.containsValue("no"));
  EXPECT_EQ(decoder.decodeString("clé"), "\xF0\x9F\x98\x80\uFFFD");
  EXPECT_EQ(decoder.decodeString("empty"), "");
  EXPECT_EQ(decoder.decodeURLs("none"), std::vector<FileURL>{});
}

TEST(KeyedArchive, costsFewReadsToOpenHoweverManyURLsItLists) {
  const auto bytes = std::make_shared<CountedReads>(archived(manifestOfFiles(20'000)));
  EXPECT_GT(bytes->size(), 1'500'000u);
  const auto decoder = unarchivedRoot(bytes);
  ASSERT_TRUE(decoder);
  EXPECT_EQ(decoder->className(), "ZQStashwickOperation");
  EXPECT_EQ(decoder->decodeString("encryption"), "AES-256");
  EXPECT_EQ(decoder->decodeObject("result")->decodeInteger("bytes"), 5000000000);
  EXPECT_LE(bytes->reads, 12u);
  EXPECT_LE(bytes->bytesRead, 12u * 4096);
}

TEST(KeyedArchive, readsEachPartOfALongListAboutOnce) {
  const Manifest manifest = manifestOfFiles(100'000);
  const auto bytes = std::make_shared<CountedReads>(archived(manifest));
  const auto decoder = unarchivedRoot(bytes);
  ASSERT_TRUE(decoder);
  EXPECT_EQ(decoder->decodeObject("result")->decodeURLs("files"), manifest.scan->files);
  EXPECT_LE(bytes->bytesRead, 2 * bytes->size());
}

TEST(KeyedArchive, staysReadableThroughItsDecodersAlone) {
  std::optional<KeyedDecoder> result;
  {
    const auto decoder = root(archived(sampleManifest()));
    result = decoder.decodeObject("result");
  }
  EXPECT_EQ(result->decodeURLs("files"), sampleManifest().scan->files);
}

TEST(KeyedArchive, readsNothingFromAMediumThatFails) {
  const auto bytes = std::make_shared<CountedReads>(archived(manifestOfFiles(1000)));
  const auto decoder = unarchivedRoot(bytes);
  ASSERT_TRUE(decoder);
  const auto result = decoder->decodeObject("result");
  bytes->broken = true;
  EXPECT_EQ(result->decodeURLs("files"), std::nullopt);
  EXPECT_THAT(unarchivedRoot(bytes).error().message, HasSubstr("cannot be read"));
}

TEST(KeyedArchiveOpening, refusesWhatIsNoKeyedArchive) {
  EXPECT_THAT(refusal({}), HasSubstr("shorter"));
  EXPECT_THAT(refusal(bytesOf(std::string(200, 'x'))), HasSubstr("does not begin with"));
  EXPECT_THAT(refusal(writeBinaryPropertyList(true)), HasSubstr("no keyed archive"));
  EXPECT_THAT(refusal(writeBinaryPropertyList(Dictionary{{"a", 1}})), HasSubstr("no keyed archive"));
  EXPECT_THAT(refusal(writeBinaryPropertyList(Dictionary{{"$archiver", "Other"}})),
              HasSubstr("no keyed archive"));
  EXPECT_THAT(
      refusal(writeBinaryPropertyList(Dictionary{{"$archiver", "NSKeyedArchiver"}, {"$objects", "none"}})),
      HasSubstr("list of objects"));
}

TEST(KeyedArchiveOpening, refusesAnArchiveWithoutARoot) {
  EXPECT_THAT(refusal(archiveOf({Dictionary{}}, UID{0})), HasSubstr("root object is missing"));
  EXPECT_THAT(refusal(archiveOf({Dictionary{}}, UID{2})), HasSubstr("root object is missing"));
  EXPECT_THAT(refusal(archiveOf({Dictionary{}}, UID{~std::uint64_t{0}})),
              HasSubstr("root object is missing"));
  EXPECT_THAT(refusal(archiveOf({Dictionary{}}, 1)), HasSubstr("root object is missing"));
  EXPECT_THAT(refusal(archiveOf({"text"})), HasSubstr("no object with keys"));
}

TEST(KeyedDecoder, readsValuesOfAnotherKindAsAbsent) {
  const auto decoder = root(archiveOf(
      {Dictionary{
           {"text", UID{2}}, {"array", UID{3}}, {"inline", "text"}, {"real", 1.5}, {"nowhere", UID{99}}},
       "file:///a", Array{}}));
  for (const char* key : {"text", "array", "inline", "real", "nowhere"}) {
    EXPECT_EQ(decoder.decodeURL(key), std::nullopt) << key;
    EXPECT_EQ(decoder.decodeURLs(key), std::nullopt) << key;
    EXPECT_EQ(decoder.decodeInteger(key), 0) << key;
    EXPECT_FALSE(decoder.decodeObject(key)) << key;
    EXPECT_EQ(decoder.decodeString(key).has_value(), key == std::string_view("text")) << key;
  }
  EXPECT_EQ(decoder.className(), "");
}

TEST(KeyedDecoder, joinsAURLWithItsBase) {
  const auto url = [](std::string_view relative, std::string_view base) {
    const Array more = {relative, Dictionary{{"NS.relative", UID{7}}, {"$class", UID{3}}}, base};
    return root(archiveOfValue(Dictionary{{"NS.base", UID{6}}, {"NS.relative", UID{5}}, {"$class", UID{3}}},
                               more))
        .decodeURL("value");
  };
  EXPECT_EQ(url("b%20c", "file:///a/"), (FileURL{"/a/b c", false}));
  EXPECT_EQ(url("b/", "file:///a/x"), (FileURL{"/a/b", true}));
  EXPECT_EQ(url("/b", "file:///a/"), (FileURL{"/b", false}));
  EXPECT_EQ(url("file:///b", "file:///a/"), (FileURL{"/b", false}));
  EXPECT_EQ(url("b", "http://example.org/"), std::nullopt);
  EXPECT_EQ(url("http://example.org/", "file:///a/"), (FileURL{"/a/http://example.org", true}));
}

TEST(KeyedDecoder, endsAChainOfBasesThatLoops) {
  const auto bytes =
      archiveOfValue(Dictionary{{"NS.base", UID{2}}, {"NS.relative", UID{5}}, {"$class", UID{3}}}, {"a"});
  EXPECT_EQ(root(bytes).decodeURL("value"), std::nullopt);
}

TEST(KeyedDecoder, readsNoURLThatHoldsANulByte) {
  const auto scan = root(corpus("url_with_nul.manifest")).decodeObject("result");
  EXPECT_EQ(scan->decodeURL("path"), std::nullopt);
}

TEST(KeyedDecoder, readsAURLThatEndsInTwoSlashesAsAFolders) {
  const auto scan = root(corpus("url_with_two_slashes.manifest")).decodeObject("result");
  EXPECT_EQ(scan->decodeURL("path"), (FileURL{"/VolumesICKST", true}));
}

TEST(KeyedDecoder, readsOnlyURLsAsURLs) {
  const auto decoded = [](const char* name) {
    return root(archiveOfValue(Dictionary{{"NS.relative", UID{5}}, {"$class", UID{6}}},
                               {"file:///a", classEntry({name, "NSObject"})}))
        .decodeURL("value");
  };
  EXPECT_EQ(decoded("NSURL"), (FileURL{"/a", false}));
  EXPECT_EQ(decoded("NSDate"), std::nullopt);
}

TEST(KeyedDecoder, readsNoListThatHoldsSomethingElse) {
  const auto list = [](Array elements) {
    return root(archiveOfValue(Dictionary{{"NS.objects", std::move(elements)}, {"$class", UID{4}}},
                               {Dictionary{{"NS.relative", UID{6}}, {"$class", UID{3}}}, "file:///a"}))
        .decodeURLs("value");
  };
  const FileURL a{"/a", false};
  EXPECT_EQ(list({UID{5}, UID{5}}), (std::vector{a, a}));
  EXPECT_EQ(list({UID{5}, UID{0}}), std::nullopt);
  EXPECT_EQ(list({UID{5}, UID{2}}), std::nullopt);
  EXPECT_EQ(list({UID{5}, UID{6}}), std::nullopt);
  EXPECT_EQ(list({UID{5}, UID{77}}), std::nullopt);
  EXPECT_EQ(list({UID{5}, 5}), std::nullopt);
}

TEST(KeyedDecoder, refusesAListThatRepeatsALongText) {
  const std::string text = "file:///" + std::string(100'000, 'a');
  const auto list = [&](std::size_t count) {
    return root(archiveOfValue(Dictionary{{"NS.objects", Array(count, UID{5})}, {"$class", UID{4}}},
                               {Dictionary{{"NS.relative", UID{6}}, {"$class", UID{3}}}, text}))
        .decodeURLs("value");
  };
  EXPECT_TRUE(list(10));
  EXPECT_EQ(list(10'000), std::nullopt);
}

TEST(KeyedDecoder, refusesAListThatRepeatsAnObjectOfManyKeys) {
  Dictionary many = {{"NS.relative", UID{6}}, {"$class", UID{3}}};
  for (int i = 0; i < 20'000; ++i) many["A" + std::to_string(i)] = true;
  const auto bytes = archiveOfValue(Dictionary{{"NS.objects", Array(20'000, UID{5})}, {"$class", UID{4}}},
                                    {many, "file:///a"});
  EXPECT_EQ(root(bytes).decodeURLs("value"), std::nullopt);
}

// Whatever the bytes are: everything is asked of them, and nothing goes wrong.
void exercise(Bytes bytes) {
  const auto decoder = opened(std::move(bytes));
  if (!decoder) {
    EXPECT_THAT(decoder.error().message, HasSubstr("reading a keyed archive: "));
    return;
  }
  decoder->className();
  manifestFrom(*decoder);
}

TEST(KeyedArchive, refusesAnArchiveCutAnywhere) {
  const Bytes whole = archived(sampleManifest());
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_FALSE(opened(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)))) << length;
}

TEST(KeyedArchive, survivesEveryChangedByte) {
  const Bytes whole = archived(sampleManifest());
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const unsigned mask : {0x01u, 0x02u, 0x04u, 0x08u, 0x10u, 0x20u, 0x40u, 0x80u, 0xFFu}) {
      Bytes changed = whole;
      changed[at] ^= static_cast<std::byte>(mask);
      exercise(std::move(changed));
    }
  }
}

}  // namespace
}  // namespace base
