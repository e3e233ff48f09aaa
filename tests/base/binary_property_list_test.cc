#include "base/binary_property_list.h"

#include <cstdint>
#include <gmock/gmock.h>
#include <limits>

#include "base/byte_order.h"
#include "base/xml_property_list.h"
#include "tests/base/python.h"

namespace base {
namespace {

using ::testing::HasSubstr;
using Array = PropertyList::Array;
using Dictionary = PropertyList::Dictionary;
using Bytes = std::vector<std::byte>;

PropertyList parsed(std::span<const std::byte> bytes) {
  auto value = parseBinaryPropertyList(bytes);
  EXPECT_TRUE(value) << value.error().message;
  return value ? std::move(*value) : PropertyList("unreadable");
}

std::string refusal(std::span<const std::byte> bytes) {
  const auto value = parseBinaryPropertyList(bytes);
  return value ? "accepted" : value.error().message;
}

std::string text(std::initializer_list<int> bytes) {
  std::string text;
  for (const int byte : bytes) text += static_cast<char>(byte);
  return text;
}

struct Trailer {
  std::uint8_t offsetWidth = 4;
  std::uint8_t referenceWidth = 1;
  std::uint64_t top = 0;
};

// A file of these objects, laid out by hand.
Bytes fileOf(const std::vector<std::string>& objects, Trailer trailer = {}) {
  Bytes file = bytesOf("bplist00");
  ByteWriter out(file);
  std::vector<std::uint32_t> offsets;
  for (const std::string& object : objects) {
    offsets.push_back(static_cast<std::uint32_t>(file.size()));
    out.put(bytesOf(object));
  }
  const std::uint64_t table = file.size();
  for (const std::uint32_t offset : offsets) out.put(offset);
  out.zeros(6).put(trailer.offsetWidth).put(trailer.referenceWidth);
  out.put(std::uint64_t{objects.size()}).put(trailer.top).put(table);
  return file;
}

Array everyWidth() {
  Array integers;
  for (const std::int64_t value :
       {0L, 127L, 128L, 255L, 256L, 65535L, 65536L, 4294967295L, 4294967296L, -1L, -128L,
        std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()})
    integers.push_back(value);
  return integers;
}

PropertyList everyKind() {
  return Dictionary{
      {"array", everyWidth()},
      {"bytes", bytesOf(std::string(300, 'x'))},
      {"date", Date{-1.25}},
      {"empty", Array{"", PropertyList::Data{}, Array{}, Dictionary{}}},
      {"flags", Array{true, false}},
      {"real", 0.1},
      {"text", Array{"ascii", "é", "\xF0\x9F\x98\x80", std::string(20, 'a'), "ascii"}},
      {"uid",
       Array{PropertyList::UID{0}, PropertyList::UID{256}, PropertyList::UID{70000}, PropertyList::UID{1}}},
  };
}

TEST(BinaryPropertyList, readsBackWhatItWrites) {
  EXPECT_EQ(parsed(writeBinaryPropertyList(everyKind())), everyKind());
}

TEST(BinaryPropertyList, isReadByPlistlibAsTheSameValue) {
  EXPECT_EQ(
      plistlibComparison(writeBinaryPropertyList(everyKind()),
                         "{'array': [0, 127, 128, 255, 256, 65535, 65536, 2**32-1, 2**32, -1, -128, 2**63-1, "
                         "-2**63], 'bytes': b'x' * 300, 'date': datetime(2000, 12, 31, 23, 59, 58, 750000), "
                         "'empty': ['', b'', [], {}], 'flags': [True, False], 'real': 0.1, "
                         "'text': ['ascii', '\\xe9', '\\U0001f600', 'a' * 20, 'ascii'], "
                         "'uid': [UID(0), UID(256), UID(70000), UID(1)]}"),
      "equal");
}

TEST(BinaryPropertyList, readsWhatPlistlibWrites) {
  const Dictionary expected = {
      {"array", Array{0, 255, 256, 65535, 65536, std::int64_t{1} << 32, -1,
                      std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}},
      {"data",
       [] {
         PropertyList::Data data;
         for (int i = 0; i < 256; ++i) data.push_back(static_cast<std::byte>(i));
         return data;
       }()},
      {"date", Date::fromUnix(1612325106)},
      {"flags", Array{true, false}},
      {"reals", Array{0.0, 1.5, -1e300}},
      {"text", Array{"", "ascii", "é",
                     [] {
                       std::string faces;
                       for (int i = 0; i < 20; ++i) faces += "\xF0\x9F\x98\x80";
                       return faces;
                     }()}},
      {"uid", Array{PropertyList::UID{0}, PropertyList::UID{300}, PropertyList::UID{70000}}},
  };
  EXPECT_EQ(parsed(corpus("every_kind_binary.plist")), PropertyList(expected));
}

// 255 objects have references of one byte, 256 of two, and so on: each width and both sides of its limit.
TEST(BinaryPropertyList, choosesWidthsThatBothReadersUnderstand) {
  for (const int count : {1, 14, 15, 253, 254, 255, 256, 257, 65533, 65534, 65535, 65536, 70000}) {
    Array array;
    for (int i = 0; i < count; ++i) array.push_back(i);
    const auto bytes = writeBinaryPropertyList(Dictionary{{"a", array}});
    EXPECT_TRUE(parsed(bytes) == PropertyList(Dictionary{{"a", array}})) << count;
    EXPECT_EQ(plistlibComparison(bytes, "{'a': list(range(" + std::to_string(count) + "))}"), "equal")
        << count;
  }
}

TEST(BinaryPropertyList, storesEqualStringsOnce) {
  const std::string name(1000, 'n');
  Array array;
  for (int i = 0; i < 100; ++i) array.push_back(Dictionary{{name, name}});
  EXPECT_LT(writeBinaryPropertyList(array).size(), 3000u);
}

TEST(BinaryPropertyList, replacesInvalidUTF8WhenWriting) {
  EXPECT_EQ(parsed(writeBinaryPropertyList("a\xFF\xED\xA0\x80z")),
            PropertyList("a\uFFFD\uFFFD\uFFFD\uFFFDz"));
}

TEST(BinaryPropertyList, replacesUnpairedSurrogatesWhenReading) {
  const auto units = text({0x64, 0xD8, 0x00, 0x00, 0x61, 0xDC, 0x00, 0xD8, 0x3D});
  EXPECT_EQ(parsed(fileOf({units})), PropertyList("\uFFFDa\uFFFD\uFFFD"));
}

TEST(BinaryPropertyList, readsSingleRealsAndLongIntegers) {
  EXPECT_EQ(parsed(fileOf({text({0x22, 0x3F, 0xC0, 0, 0})})), PropertyList(1.5));
  EXPECT_EQ(parsed(fileOf({text({0x14}) + std::string(15, '\0') + "\x07"})), PropertyList(7));
  EXPECT_EQ(parsed(fileOf({text({0x14}) + std::string(16, '\xFF')})), PropertyList(-1));
}

TEST(BinaryPropertyList, refusesAnIntegerThatDoesNotFit) {
  EXPECT_THAT(refusal(fileOf({text({0x14}) + std::string(7, '\0') + "\x01" + std::string(8, '\0')})),
              HasSubstr("does not fit 64 bits"));
  EXPECT_THAT(refusal(fileOf({text({0x14}) + std::string(8, '\0') + std::string(8, '\xFF')})),
              HasSubstr("does not fit 64 bits"));
}

TEST(BinaryPropertyList, refusesAUIDThatDoesNotFit) {
  EXPECT_EQ(parsed(fileOf({text({0x83, 0xFF, 0xFF, 0xFF, 0xFF})})),
            PropertyList(PropertyList::UID{0xFFFFFFFF}));
  EXPECT_EQ(parsed(fileOf({text({0x87, 0, 0, 0, 0, 0, 0, 0, 7})})), PropertyList(PropertyList::UID{7}));
  EXPECT_THAT(refusal(fileOf({text({0x84, 1, 0, 0, 0, 0})})), HasSubstr("does not fit 32 bits"));
  EXPECT_THAT(refusal(fileOf({text({0x8F}) + std::string(16, '\0')})), HasSubstr("does not fit 32 bits"));
}

TEST(BinaryPropertyList, refusesKindsThatItDoesNotHold) {
  EXPECT_THAT(refusal(fileOf({text({0x00})})), HasSubstr("null"));
  EXPECT_THAT(refusal(fileOf({text({0xC0})})), HasSubstr("set"));
  EXPECT_THAT(refusal(fileOf({text({0xD1, 1, 2}), text({0x10, 5}), text({0x09})})), HasSubstr("no string"));
  for (const int marker : {0x0F, 0x15, 0x21, 0x24, 0x32, 0x70, 0x90, 0xB0, 0xE0, 0xF0})
    EXPECT_THAT(refusal(fileOf({text({marker}) + std::string(32, '\0')})), HasSubstr("unknown kind"))
        << marker;
}

TEST(BinaryPropertyList, refusesNonASCIIInAnASCIIString) {
  EXPECT_THAT(refusal(fileOf({text({0x51, 0xE9})})), HasSubstr("damaged string"));
}

TEST(BinaryPropertyList, refusesReferencesThatLoop) {
  EXPECT_THAT(refusal(corpus("cycle.plist")), HasSubstr("contains itself"));
  EXPECT_THAT(refusal(fileOf({text({0xD1, 1, 0}), "\x51k"})), HasSubstr("contains itself"));
}

TEST(BinaryPropertyList, refusesReferencesThatMultiply) {
  EXPECT_THAT(refusal(corpus("shared_references.plist")), HasSubstr("referred to too often"));
}

TEST(BinaryPropertyList, refusesALargeTextReferredToTooOften) {
  Array array(2000, PropertyList(std::string(100'000, 'x')));
  EXPECT_THAT(refusal(writeBinaryPropertyList(array)), HasSubstr("referred to too often"));
}

TEST(BinaryPropertyList, refusesAReferenceToNoObject) {
  EXPECT_THAT(refusal(fileOf({text({0xA1, 1})})), HasSubstr("not there"));
  EXPECT_THAT(refusal(fileOf({text({0xA1, 255})})), HasSubstr("not there"));
}

TEST(BinaryPropertyList, refusesAbsurdCounts) {
  for (const int kind : {0x40, 0x50, 0x60, 0xA0, 0xD0}) {
    EXPECT_THAT(refusal(fileOf({text({kind | 15, 0x13}) + std::string(8, '\xFF')})), HasSubstr("damaged"))
        << kind;
    EXPECT_THAT(refusal(fileOf({text({kind | 15, 0x13, 0x80}) + std::string(7, '\0')})),
                HasSubstr("damaged"));
    EXPECT_THAT(refusal(fileOf({text({kind | 15, 0x10, 200})})), HasSubstr("damaged")) << kind;
  }
}

TEST(BinaryPropertyList, checksEveryFieldOfTheTrailer) {
  const Bytes good = fileOf({text({0x09})});
  ASSERT_EQ(parsed(good), PropertyList(true));
  EXPECT_THAT(refusal(fileOf({text({0x09})}, {.offsetWidth = 0})), HasSubstr("impossible width"));
  EXPECT_THAT(refusal(fileOf({text({0x09})}, {.offsetWidth = 9})), HasSubstr("impossible width"));
  EXPECT_THAT(refusal(fileOf({text({0x09})}, {.offsetWidth = 8})), HasSubstr("more objects"));
  EXPECT_THAT(refusal(fileOf({text({0x09})}, {.referenceWidth = 0})), HasSubstr("impossible width"));
  EXPECT_THAT(refusal(fileOf({text({0x09})}, {.referenceWidth = 9})), HasSubstr("impossible width"));
  EXPECT_THAT(refusal(fileOf({text({0x09})}, {.top = 1})), HasSubstr("top object"));
  EXPECT_THAT(refusal(fileOf({})), HasSubstr("outside"));
  const auto with = [&](std::size_t fromEnd, std::uint64_t value) {
    Bytes bytes = good;
    storeBigEndian(&bytes[bytes.size() - fromEnd], value);
    return bytes;
  };
  for (const std::uint64_t absurd : {std::uint64_t{2}, std::uint64_t{1} << 62, ~std::uint64_t{0}})
    EXPECT_THAT(refusal(with(24, absurd)), HasSubstr("more objects"));
  for (const std::uint64_t outside :
       {std::uint64_t{0}, std::uint64_t{8}, std::uint64_t{14}, ~std::uint64_t{0}})
    EXPECT_THAT(refusal(with(8, outside)), HasSubstr("outside"));
}

TEST(BinaryPropertyList, refusesWhatIsNotBinaryOrTooShort) {
  EXPECT_THAT(refusal({}), HasSubstr("shorter"));
  EXPECT_THAT(refusal(bytesOf("bplist00")), HasSubstr("shorter"));
  EXPECT_THAT(refusal(Bytes(100)), HasSubstr("does not begin with"));
}

TEST(BinaryPropertyList, readsDownToItsDepthLimit) {
  PropertyList value = true;
  for (int i = 0; i < kMaxPropertyListDepth; ++i) value = Array{value};
  EXPECT_EQ(parsed(writeBinaryPropertyList(value)), value);
  EXPECT_THAT(refusal(writeBinaryPropertyList(Array{value})), HasSubstr("nested too deeply"));
}

TEST(BinaryPropertyList, refusesTenMegabytesOfNestedArrays) {
  Bytes file = bytesOf("bplist00");
  ByteWriter out(file);
  constexpr std::uint32_t kCount = 1'100'000;
  for (std::uint32_t i = 0; i < kCount; ++i) out.put(std::uint8_t{0xA1}).put(std::uint32_t{i + 1});
  const std::uint64_t table = file.size();
  for (std::uint32_t i = 0; i < kCount; ++i) out.put(std::uint32_t{8 + 5 * i});
  out.zeros(6).put(std::uint8_t{4}).put(std::uint8_t{4});
  out.put(std::uint64_t{kCount}).put(std::uint64_t{0}).put(table);
  EXPECT_THAT(refusal(file), HasSubstr("nested too deeply"));
}

TEST(BinaryPropertyList, refusesAFileCutAnywhere) {
  const Bytes whole = writeBinaryPropertyList(everyKind());
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_FALSE(parseBinaryPropertyList(std::span(whole).first(length))) << length;
}

TEST(BinaryPropertyList, survivesEveryChangedByte) {
  const Bytes whole = writeBinaryPropertyList(everyKind());
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const unsigned mask : {0x01u, 0x10u, 0x80u, 0xFFu}) {
      Bytes changed = whole;
      changed[at] ^= static_cast<std::byte>(mask);
      const auto value = parseBinaryPropertyList(changed);
      if (!value) {
        EXPECT_THAT(value.error().message, HasSubstr("reading a binary property list: "));
      }
    }
  }
}

TEST(AnyPropertyList, isToldApartByItsFirstBytes) {
  const PropertyList value = Dictionary{{"a", 1}};
  EXPECT_EQ(*parsePropertyList(writeBinaryPropertyList(value)), value);
  EXPECT_EQ(*parsePropertyList(bytesOf(writeXMLPropertyList(value))), value);
  EXPECT_THAT(parsePropertyList(bytesOf("{ a = 1; }")).error().message, HasSubstr("XML property list"));
  EXPECT_THAT(parsePropertyList(bytesOf("bplist99")).error().message, HasSubstr("binary property list"));
}

}  // namespace
}  // namespace base
