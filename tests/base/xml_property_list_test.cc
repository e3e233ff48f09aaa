#include "base/xml_property_list.h"

#include <cmath>
#include <gmock/gmock.h>
#include <limits>

#include "base/binary_property_list.h"
#include "tests/base/python.h"

namespace base {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Array = PropertyList::Array;
using Dictionary = PropertyList::Dictionary;

std::string document(std::string_view value) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + std::string(value) +
         "\n</plist>\n";
}

PropertyList parsed(std::string_view text) {
  auto value = parseXMLPropertyList(text);
  EXPECT_TRUE(value) << value.error().message;
  return value ? std::move(*value) : PropertyList("unreadable");
}

PropertyList parsedValue(std::string_view value) { return parsed(document(value)); }

std::string refusal(std::string_view text) {
  const auto value = parseXMLPropertyList(text);
  return value ? "accepted" : value.error().message;
}

std::string refusalOfValue(std::string_view value) { return refusal(document(value)); }

PropertyList everyKind() {
  return Dictionary{
      {"array", Array{1, "two", Array{}, Dictionary{}}},
      {"bytes", bytesOf(std::string("\0\1\2\xFF", 4))},
      {"date", Date{1234567}},
      {"empty", ""},
      {"false", false},
      {"integer", -1},
      {"largest", std::numeric_limits<std::int64_t>::max()},
      {"real", 0.1},
      {"smallest", std::numeric_limits<std::int64_t>::min()},
      {"text", "a < b & \"c\" > d\té\xF0\x9F\x98\x80\r\n"},
      {"true", true},
  };
}

TEST(XMLPropertyListWriting, laysAValueOutAsThePlatformDoes) {
  const Dictionary nested = {{"Flag", -1}, {"Data", bytesOf("hello")}, {"Empty", Array{}}};
  EXPECT_EQ(writeXMLPropertyList(Dictionary{{"A&B", nested}, {"On", true}, {"When", Date{0}}}),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key>A&amp;B</key>\n"
            "\t<dict>\n"
            "\t\t<key>Data</key>\n"
            "\t\t<data>\n"
            "\t\taGVsbG8=\n"
            "\t\t</data>\n"
            "\t\t<key>Empty</key>\n"
            "\t\t<array/>\n"
            "\t\t<key>Flag</key>\n"
            "\t\t<integer>-1</integer>\n"
            "\t</dict>\n"
            "\t<key>On</key>\n"
            "\t<true/>\n"
            "\t<key>When</key>\n"
            "\t<date>2001-01-01T00:00:00Z</date>\n"
            "</dict>\n"
            "</plist>\n");
}

TEST(XMLPropertyListWriting, breaksDataAtColumn76CountingATabAsEight) {
  const std::string text = writeXMLPropertyList(Array{PropertyList::Data(100)});
  const std::string line = "\t" + std::string(68, 'A') + "\n";
  EXPECT_THAT(text, HasSubstr("\t<data>\n" + line + "\t" + std::string(66, 'A') + "==\n\t</data>\n"));
}

TEST(XMLPropertyListWriting, replacesWhatXMLCannotHold) {
  EXPECT_THAT(writeXMLPropertyList(std::string("a\0b\x01"
                                               "c\xFF",
                                               6)),
              HasSubstr("<string>a\uFFFDb\uFFFDc\uFFFD</string>"));
}

TEST(XMLPropertyListWriting, holdsDatesWithinTheYearsThatTheFormCanShow) {
  EXPECT_THAT(writeXMLPropertyList(Date{1e300}), HasSubstr("<date>9999-12-31T23:59:59Z</date>"));
  EXPECT_THAT(writeXMLPropertyList(Date{-1e300}), HasSubstr("<date>0001-01-01T00:00:00Z</date>"));
  EXPECT_THAT(writeXMLPropertyList(Date{std::nan("")}), HasSubstr("<date>0001-01-01T00:00:00Z</date>"));
  EXPECT_THAT(writeXMLPropertyList(Date{-0.5}), HasSubstr("<date>2000-12-31T23:59:59Z</date>"));
}

TEST(XMLPropertyListWriting, writesRealsSoThatTheyReadBackExactly) {
  for (const double real :
       {0.1, -2.5e-300, 1.0, 123456789.123456789, std::numeric_limits<double>::infinity()})
    EXPECT_EQ(parsed(writeXMLPropertyList(real)), PropertyList(real));
  EXPECT_TRUE(std::isnan(*parsed(writeXMLPropertyList(std::nan(""))).as<double>()));
}

TEST(XMLPropertyList, readsBackWhatItWrites) {
  EXPECT_EQ(parsed(writeXMLPropertyList(everyKind())), everyKind());
  EXPECT_EQ(parsed(writeXMLPropertyList(PropertyList::UID{7})), PropertyList(PropertyList::UID{7}));
}

TEST(XMLPropertyList, isReadByPlistlibAsTheSameValue) {
  EXPECT_EQ(plistlibComparison(bytesOf(writeXMLPropertyList(everyKind())),
                               "{'array': [1, 'two', [], {}], 'bytes': b'\\0\\1\\2\\xff', "
                               "'date': datetime(2001, 1, 15, 6, 56, 7), 'empty': '', 'false': False, "
                               "'integer': -1, 'largest': 2**63 - 1, 'real': 0.1, 'smallest': -2**63, "
                               "'text': 'a < b & \"c\" > d\\t\\xe9\\U0001f600\\r\\n', 'true': True}"),
            "equal");
}

TEST(XMLPropertyList, readsWhatPlistlibWrites) {
  const auto bytes = plistlibBytes(
      "{'array': [1, -2**63, 1.5, -inf, [], {}, True, False], 'bytes': bytes(range(256)) * 3, "
      "'date': datetime(1999, 12, 31, 23, 59, 58), 'text': '<\\xe9 & \\U0001f600>'}",
      "FMT_XML");
  PropertyList::Data data;
  for (int i = 0; i < 768; ++i) data.push_back(static_cast<std::byte>(i & 255));
  const double infinity = std::numeric_limits<double>::infinity();
  const Dictionary expected = {
      {"array", Array{1, std::numeric_limits<std::int64_t>::min(), 1.5, -infinity, Array{}, Dictionary{},
                      true, false}},
      {"bytes", data},
      {"date", Date::fromUnix(946684798)},
      {"text", "<é & \xF0\x9F\x98\x80>"},
  };
  const auto value = parsePropertyList(bytes);
  ASSERT_TRUE(value) << value.error().message;
  EXPECT_EQ(*value, PropertyList(expected));
}

TEST(XMLPropertyList, readsTheFormsInTheCorpus) {
  const Dictionary expected = {
      {"Comment -->", "one two three"},
      {"Empty", Dictionary{{"array", Array{}}, {"data", PropertyList::Data{}}, {"string", ""}}},
      {"Entities", "<&>\"'\u00e9\U0001F600"},
      {"Hexadecimal", -255},
      {"Lines", "a\nb\nc"},
      {"UID", PropertyList::UID{12}},
  };
  const auto value = parsePropertyList(corpus("unusual_xml.plist"));
  ASSERT_TRUE(value) << value.error().message;
  EXPECT_EQ(*value, PropertyList(expected));
}

TEST(XMLPropertyList, readsAByteOrderMark) {
  EXPECT_EQ(parsed("\xEF\xBB\xBF<plist version=\"1.0\"><true/></plist>"), PropertyList(true));
}

TEST(XMLPropertyList, takesTheLastOfAKeysValues) {
  EXPECT_EQ(parsedValue("<dict><key>a</key><true/><key>a</key><false/></dict>"),
            PropertyList(Dictionary{{"a", false}}));
}

TEST(XMLPropertyList, namesTheLineOfWhatItRefuses) {
  EXPECT_THAT(refusalOfValue("<array>\n<integer>1</integer>\n<colour>red</colour>\n</array>"),
              HasSubstr("line 5: the unknown element \"colour\""));
  EXPECT_THAT(refusalOfValue("<integer>9223372036854775808</integer>"),
              HasSubstr("line 3: \"9223372036854775808\""));
}

class XMLPropertyListRefuses : public ::testing::TestWithParam<std::string_view> {};

TEST_P(XMLPropertyListRefuses, aMalformedValue) {
  EXPECT_THAT(refusalOfValue(GetParam()), StartsWith("reading an XML property list: line ")) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(
    Values, XMLPropertyListRefuses,
    ::testing::Values(
        "", "text", "<string>a", "<string>a</key>", "<string><b/></string>", "<string>&nope;</string>",
        "<string>&amp</string>", "<string>&#0;</string>", "<string>&#xD800;</string>",
        "<string>&#x110000;</string>", "<string><![CDATA[a</string>", "<integer></integer>", "<integer/>",
        "<integer>1x</integer>", "<integer>- 1</integer>", "<integer>1.5</integer>", "<real>one</real>",
        "<real/>", "<real>1e999</real>", "<date>2001-02-30T00:00:00Z</date>", "<date>2001-01-01</date>",
        "<date>2001-01-01T24:00:00Z</date>", "<data>A</data>", "<data>AA=A</data>", "<data>AAA</data>",
        "<data>A===</data>", "<data>A*==</data>", "<true>x</true>", "<array><true/>", "<array>",
        "<array></dict>", "<dict><true/></dict>", "<dict><key>a</key></dict>", "<dict><key>a</key>",
        "<dict>text</dict>", "<true/><true/>", "</array>", "<!-- no end", "<?no end", "<", "</", "<a b>",
        "<true a=b/>", "<true", "<true/", "<string>\x01</string>", "<string>\xC0\x80</string>",
        "<string>\xED\xA0\x80</string>"));

TEST(XMLPropertyList, refusesWhatSurroundsTheValue) {
  EXPECT_THAT(refusal(""), HasSubstr("ends too soon"));
  EXPECT_THAT(refusal("<true/>"), HasSubstr("outermost element"));
  EXPECT_THAT(refusal("<plist/>"), HasSubstr("outermost element"));
  EXPECT_THAT(refusal("<plist><true/></plist>x"), HasSubstr("something after"));
  EXPECT_THAT(refusal("<?xml version='1.0' encoding='ISO-8859-1'?><plist><true/></plist>"),
              HasSubstr("\"ISO-8859-1\", not UTF-8"));
  EXPECT_THAT(refusal("<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><true/></plist>"),
              HasSubstr("definitions of its own"));
  EXPECT_THAT(refusal("<!DOCTYPE plist PUBLIC \"no end"), HasSubstr("does not end"));
  EXPECT_THAT(refusal(std::string("\xFF\xFE<\0p\0", 6)), HasSubstr("not UTF-8"));
}

TEST(XMLPropertyList, readsDownToItsDepthLimit) {
  const auto nested = [](int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += "<array>";
    for (int i = 0; i < depth; ++i) text += "</array>";
    return text;
  };
  EXPECT_TRUE(parseXMLPropertyList(document(nested(kMaxPropertyListDepth))));
  EXPECT_THAT(refusalOfValue(nested(kMaxPropertyListDepth + 1)), HasSubstr("deeper than 512"));
}

TEST(XMLPropertyList, refusesTenMegabytesOfNestedArrays) {
  std::string text = "<plist>";
  while (text.size() < 10'000'000) text += "<array>";
  EXPECT_THAT(refusal(text), HasSubstr("deeper than 512"));
}

TEST(XMLPropertyList, refusesAFileCutAnywhere) {
  const std::string whole = writeXMLPropertyList(everyKind());
  for (std::size_t length = 0; length + 1 < whole.size(); ++length)
    EXPECT_FALSE(parseXMLPropertyList(whole.substr(0, length))) << length;
}

}  // namespace
}  // namespace base
