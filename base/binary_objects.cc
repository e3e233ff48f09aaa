#include "base/binary_objects.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "base/byte_order.h"
#include "base/property_list.h"
#include "base/unicode.h"

namespace base {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::uint64_t kTrailerBytes = 32;
constexpr unsigned kReferenceBytesInProgress = 4;

// The upper half of a marker byte.
enum Marker : unsigned {
  kSimpleMarker = 0x00,
  kIntegerMarker = 0x10,
  kRealMarker = 0x20,
  kDateMarker = 0x30,
  kDataMarker = 0x40,
  kASCIIMarker = 0x50,
  kUTF16Marker = 0x60,
  kUIDMarker = 0x80,
  kArrayMarker = 0xA0,
  kSetMarker = 0xC0,
  kDictionaryMarker = 0xD0,
};
constexpr unsigned kFalse = 0x08, kTrue = 0x09;
constexpr unsigned kCountFollows = 0x0F;

std::uint64_t unsignedNumber(std::span<const std::byte> bytes) {
  std::uint64_t value = 0;
  for (const std::byte byte : bytes) value = value << 8 | std::to_integer<std::uint64_t>(byte);
  return value;
}

unsigned narrowestWidth(std::uint64_t value) {
  return value <= 0xFF ? 1 : value <= 0xFFFF ? 2 : value <= 0xFFFFFFFF ? 4 : 8;
}

Error damaged(std::string_view reason) { return {"reading a binary property list: " + std::string(reason)}; }

std::optional<BinaryObject::Kind> countedKind(unsigned marker) {
  switch (marker) {
    case kDataMarker:
      return BinaryObject::Kind::data;
    case kASCIIMarker:
      return BinaryObject::Kind::ascii;
    case kUTF16Marker:
      return BinaryObject::Kind::utf16;
    case kArrayMarker:
      return BinaryObject::Kind::array;
    case kSetMarker:
      return BinaryObject::Kind::set;
    case kDictionaryMarker:
      return BinaryObject::Kind::dictionary;
    default:
      return std::nullopt;
  }
}

// Booleans and numbers: the marker byte says all about them.
std::optional<BinaryObject> simpleObject(unsigned marker, std::uint64_t contents) {
  using enum BinaryObject::Kind;
  const unsigned low = marker & 0x0F;
  switch (marker & 0xF0) {
    case kSimpleMarker:
      if (marker == 0) return BinaryObject{null, 0, contents};
      if (marker == kFalse || marker == kTrue) return BinaryObject{boolean, marker == kTrue, contents};
      return std::nullopt;
    case kIntegerMarker:
      if (low > 4) return std::nullopt;
      return BinaryObject{integer, std::uint64_t{1} << low, contents};
    case kRealMarker:
      if (low != 2 && low != 3) return std::nullopt;
      return BinaryObject{real, std::uint64_t{1} << low, contents};
    case kDateMarker:
      if (low != 3) return std::nullopt;
      return BinaryObject{date, 8, contents};
    case kUIDMarker:
      return BinaryObject{uid, low + 1, contents};
    default:
      return std::nullopt;
  }
}

}  // namespace

Result<BinaryObjectReader> BinaryObjectReader::open(const RandomAccess& bytes) {
  const std::uint64_t size = bytes.size();
  if (size < kMagic.size() + kTrailerBytes) return damaged("it is shorter than a header and a trailer");
  std::array<std::byte, kMagic.size()> magic;
  std::array<std::byte, kTrailerBytes> trailer;
  if (!bytes.read(0, magic) || !bytes.read(size - kTrailerBytes, trailer))
    return damaged("it cannot be read");
  if (std::memcmp(magic.data(), kMagic.data(), magic.size()) != 0)
    return damaged("it does not begin with \"bplist00\"");

  BinaryObjectReader reader(bytes);
  ByteReader fields(trailer);
  fields.skip(6);
  reader.offsetWidth_ = fields.get<std::uint8_t>();
  reader.referenceWidth_ = fields.get<std::uint8_t>();
  reader.objectCount_ = fields.get<std::uint64_t>();
  reader.topObject_ = fields.get<std::uint64_t>();
  reader.table_ = fields.get<std::uint64_t>();
  if (reader.offsetWidth_ < 1 || reader.offsetWidth_ > 8)
    return damaged("its offsets have an impossible width");
  if (reader.referenceWidth_ < 1 || reader.referenceWidth_ > 8)
    return damaged("its references have an impossible width");
  if (reader.table_ <= kMagic.size() || reader.table_ > size - kTrailerBytes)
    return damaged("its offset table lies outside of it");
  if (reader.objectCount_ > (size - kTrailerBytes - reader.table_) / reader.offsetWidth_)
    return damaged("it counts more objects than its offset table has room for");
  if (reader.topObject_ >= reader.objectCount_) return damaged("its top object is missing");
  return reader;
}

std::optional<std::uint64_t> BinaryObjectReader::number(std::uint64_t offset, std::uint64_t width) const {
  std::array<std::byte, 8> bytes;
  const auto field = std::span(bytes).first(width);
  if (!bytes_->read(offset, field)) return std::nullopt;
  return unsignedNumber(field);
}

std::optional<BinaryObject> BinaryObjectReader::object(std::uint64_t index) const {
  if (index >= objectCount_) return std::nullopt;
  const auto offset = number(table_ + index * offsetWidth_, offsetWidth_);
  if (!offset || *offset < kMagic.size() || *offset >= table_) return std::nullopt;
  // Marker, marker of a count and the count. The trailer is longer, so that many bytes are always there.
  std::array<std::byte, 10> head;
  if (!bytes_->read(*offset, head)) return std::nullopt;
  const auto marker = std::to_integer<unsigned>(head[0]);
  const auto kind = countedKind(marker & 0xF0);
  std::optional object =
      kind ? BinaryObject{*kind, marker & 0x0F, *offset + 1} : simpleObject(marker, *offset + 1);
  if (!object) return std::nullopt;
  if (kind && object->count == kCountFollows) {
    const auto countMarker = std::to_integer<unsigned>(head[1]);
    if ((countMarker & 0xFC) != kIntegerMarker) return std::nullopt;
    const std::size_t width = std::size_t{1} << (countMarker & 3);
    object->count = unsignedNumber(std::span(head).subspan(2, width));
    object->contents += 1 + width;
  }
  const std::uint64_t bytesEach = object->kind == BinaryObject::Kind::utf16        ? 2
                                  : object->kind == BinaryObject::Kind::dictionary ? 2 * referenceWidth_
                                  : object->kind == BinaryObject::Kind::array      ? referenceWidth_
                                  : object->kind == BinaryObject::Kind::boolean    ? 0
                                                                                   : 1;
  if (object->contents > table_) return std::nullopt;
  if (bytesEach > 0 && object->count > (table_ - object->contents) / bytesEach) return std::nullopt;
  return object;
}

std::optional<std::uint64_t> BinaryObjectReader::reference(const BinaryObject& container,
                                                           std::uint64_t position) const {
  const auto index = number(container.contents + position * referenceWidth_, referenceWidth_);
  return index && *index < objectCount_ ? index : std::nullopt;
}

std::optional<std::int64_t> BinaryObjectReader::integer(const BinaryObject& object) const {
  if (object.kind != BinaryObject::Kind::integer) return std::nullopt;
  if (object.count <= 8) {
    const auto value = number(object.contents, object.count);
    return value ? std::optional(static_cast<std::int64_t>(*value)) : std::nullopt;
  }
  const auto high = number(object.contents, 8);
  const auto low = number(object.contents + 8, 8);
  if (!high || !low) return std::nullopt;
  const auto value = static_cast<std::int64_t>(*low);
  const std::uint64_t sign = value < 0 ? std::numeric_limits<std::uint64_t>::max() : 0;
  return *high == sign ? std::optional(value) : std::nullopt;
}

std::optional<std::uint64_t> BinaryObjectReader::uid(const BinaryObject& object) const {
  if (object.kind != BinaryObject::Kind::uid || object.count > 8) return std::nullopt;
  const auto value = number(object.contents, object.count);
  return value && *value <= PropertyList::kLargestUID ? value : std::nullopt;
}

std::optional<double> BinaryObjectReader::real(const BinaryObject& object) const {
  if (object.kind != BinaryObject::Kind::real && object.kind != BinaryObject::Kind::date) return std::nullopt;
  const auto bits = number(object.contents, object.count);
  if (!bits) return std::nullopt;
  return object.count == 4 ? double{std::bit_cast<float>(static_cast<std::uint32_t>(*bits))}
                           : std::bit_cast<double>(*bits);
}

std::optional<std::vector<std::byte>> BinaryObjectReader::data(const BinaryObject& object) const {
  if (object.kind != BinaryObject::Kind::data) return std::nullopt;
  std::vector<std::byte> bytes(object.count);
  if (!bytes_->read(object.contents, bytes)) return std::nullopt;
  return bytes;
}

std::optional<std::string> BinaryObjectReader::string(const BinaryObject& object) const {
  if (object.kind == BinaryObject::Kind::ascii) {
    std::string text(object.count, '\0');
    if (!bytes_->read(object.contents, std::as_writable_bytes(std::span(text)))) return std::nullopt;
    if (std::ranges::any_of(text, [](char c) { return (c & 0x80) != 0; })) return std::nullopt;
    return text;
  }
  if (object.kind != BinaryObject::Kind::utf16) return std::nullopt;
  std::vector<std::byte> bytes(object.count * 2);
  if (!bytes_->read(object.contents, bytes)) return std::nullopt;
  std::u16string units(object.count, u'\0');
  for (std::size_t i = 0; i < units.size(); ++i) units[i] = loadBigEndian<std::uint16_t>(&bytes[2 * i]);
  return utf8FromUTF16(units);
}

BinaryObjectWriter::BinaryObjectWriter() { ByteWriter(bytes_).put(std::as_bytes(std::span(kMagic))); }

BinaryObjectWriter::Reference BinaryObjectWriter::begin() {
  offsets_.push_back(bytes_.size());
  return static_cast<Reference>(offsets_.size() - 1);
}

void BinaryObjectWriter::put(std::uint64_t value, unsigned width) {
  while (width-- > 0) bytes_.push_back(static_cast<std::byte>(value >> 8 * width));
}

void BinaryObjectWriter::putHeader(unsigned kind, std::uint64_t count) {
  if (count < kCountFollows) return put(kind | count, 1);
  const unsigned width = narrowestWidth(count);
  put(kind | kCountFollows, 1);
  put(kIntegerMarker | unsigned(std::countr_zero(width)), 1);
  put(count, width);
}

void BinaryObjectWriter::putReferences(std::span<const Reference> references) {
  ByteWriter out(bytes_);
  for (const Reference reference : references) out.put(reference);
}

BinaryObjectWriter::Reference BinaryObjectWriter::addBoolean(bool value) {
  const Reference reference = begin();
  put(value ? kTrue : kFalse, 1);
  return reference;
}

// Only the form of eight bytes has a sign.
BinaryObjectWriter::Reference BinaryObjectWriter::addInteger(std::int64_t value) {
  const Reference reference = begin();
  const unsigned width = value < 0 ? 8 : narrowestWidth(static_cast<std::uint64_t>(value));
  put(kIntegerMarker | unsigned(std::countr_zero(width)), 1);
  put(static_cast<std::uint64_t>(value), width);
  return reference;
}

BinaryObjectWriter::Reference BinaryObjectWriter::addReal(double value) {
  const Reference reference = begin();
  put(kRealMarker | 3, 1);
  put(std::bit_cast<std::uint64_t>(value), 8);
  return reference;
}

BinaryObjectWriter::Reference BinaryObjectWriter::addDate(double secondsSinceReferenceDate) {
  const Reference reference = begin();
  put(kDateMarker | 3, 1);
  put(std::bit_cast<std::uint64_t>(secondsSinceReferenceDate), 8);
  return reference;
}

BinaryObjectWriter::Reference BinaryObjectWriter::addData(std::span<const std::byte> value) {
  const Reference reference = begin();
  putHeader(kDataMarker, value.size());
  ByteWriter(bytes_).put(value);
  return reference;
}

BinaryObjectWriter::Reference BinaryObjectWriter::addString(std::string_view value) {
  const Reference reference = begin();
  if (std::ranges::none_of(value, [](char c) { return (c & 0x80) != 0; })) {
    putHeader(kASCIIMarker, value.size());
    ByteWriter(bytes_).put(std::as_bytes(std::span(value)));
    return reference;
  }
  const std::u16string units = utf16FromUTF8(value);
  putHeader(kUTF16Marker, units.size());
  ByteWriter out(bytes_);
  for (const char16_t unit : units) out.put(std::uint16_t{unit});
  return reference;
}

BinaryObjectWriter::Reference BinaryObjectWriter::addUID(std::uint64_t value) {
  const Reference reference = begin();
  const unsigned width = narrowestWidth(value);
  put(kUIDMarker | (width - 1), 1);
  put(value, width);
  return reference;
}

BinaryObjectWriter::Reference BinaryObjectWriter::addArray(std::span<const Reference> elements) {
  const Reference reference = begin();
  putHeader(kArrayMarker, elements.size());
  putReferences(elements);
  return reference;
}

BinaryObjectWriter::Reference BinaryObjectWriter::addDictionary(std::span<const Reference> keys,
                                                                std::span<const Reference> values) {
  const Reference reference = begin();
  putHeader(kDictionaryMarker, keys.size());
  putReferences(keys);
  putReferences(values);
  return reference;
}

// Moves every object forward in place, as its references and those before it get shorter.
void BinaryObjectWriter::narrowReferences(unsigned width) {
  std::size_t to = kMagic.size();
  for (std::size_t i = 0; i < offsets_.size(); ++i) {
    std::size_t from = offsets_[i];
    const std::size_t end = i + 1 < offsets_.size() ? offsets_[i + 1] : bytes_.size();
    const auto marker = std::to_integer<unsigned>(bytes_[from]);
    const bool holdsReferences = (marker & 0xF0) == kArrayMarker || (marker & 0xF0) == kDictionaryMarker;
    const std::size_t header =
        (marker & 0x0F) != kCountFollows
            ? 1
            : 2 + (std::size_t{1} << (std::to_integer<unsigned>(bytes_[from + 1]) & 3));
    const std::size_t plain = holdsReferences ? header : end - from;
    std::memmove(&bytes_[to], &bytes_[from], plain);
    offsets_[i] = to;
    for (to += plain, from += plain; from < end; from += kReferenceBytesInProgress, to += width)
      std::memmove(&bytes_[to], &bytes_[from + kReferenceBytesInProgress - width], width);
  }
  bytes_.resize(to);
}

std::vector<std::byte> BinaryObjectWriter::finish(Reference top) && {
  const unsigned referenceWidth = narrowestWidth(offsets_.size());
  if (referenceWidth < kReferenceBytesInProgress) narrowReferences(referenceWidth);
  const std::uint64_t table = bytes_.size();
  const unsigned offsetWidth = narrowestWidth(table);
  bytes_.reserve(table + offsets_.size() * offsetWidth + kTrailerBytes);
  for (const std::uint64_t offset : offsets_) put(offset, offsetWidth);
  ByteWriter(bytes_).zeros(6);
  put(offsetWidth, 1);
  put(referenceWidth, 1);
  ByteWriter(bytes_).put(std::uint64_t{offsets_.size()}).put(std::uint64_t{top}).put(table);
  return std::move(bytes_);
}

}  // namespace base
