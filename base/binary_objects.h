#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/random_access.h"
#include "base/result.h"

namespace base {

// A binary property list is the magic "bplist00", a run of objects, a table of their offsets and a trailer of
// 32 bytes. An object is a marker byte (kind, and size or count), perhaps a longer count, and its contents;
// arrays and dictionaries hold the table indexes of what is in them. All numbers are big-endian.

// Where one object lies and what it is.
struct BinaryObject {
  enum class Kind { null, boolean, integer, real, date, data, ascii, utf16, uid, array, set, dictionary };
  Kind kind;
  // Bytes of a number, UID, data or ASCII text; UTF-16 units; elements; entries; 0 or 1 for a boolean.
  std::uint64_t count;
  // Offset of the contents in the file. They lie inside it.
  std::uint64_t contents;
};

// Looks at single objects of a binary property list, without reading the others. Whatever is damaged reads as
// nullopt. The bytes outlive the reader.
class BinaryObjectReader {
 public:
  // Checks magic and trailer, nothing else.
  static Result<BinaryObjectReader> open(const RandomAccess& bytes);

  std::uint64_t objectCount() const { return objectCount_; }
  std::uint64_t topObject() const { return topObject_; }

  std::optional<BinaryObject> object(std::uint64_t index) const;
  // The index of an array's element. Of a dictionary, whose keys come first: of the key at position < count,
  // of the value at count + position.
  std::optional<std::uint64_t> reference(const BinaryObject& container, std::uint64_t position) const;

  // The contents; nullopt also for an object of another kind. Integers of 16 bytes are read when they fit.
  std::optional<std::int64_t> integer(const BinaryObject& object) const;
  std::optional<std::uint64_t> uid(const BinaryObject& object) const;
  // Also a date's seconds since the reference date.
  std::optional<double> real(const BinaryObject& object) const;
  std::optional<std::vector<std::byte>> data(const BinaryObject& object) const;
  // As UTF-8. Unpaired surrogates become U+FFFD; bytes beyond ASCII in an ASCII text are damage.
  std::optional<std::string> string(const BinaryObject& object) const;

 private:
  explicit BinaryObjectReader(const RandomAccess& bytes) : bytes_(&bytes) {}
  std::optional<std::uint64_t> number(std::uint64_t offset, std::uint64_t width) const;

  const RandomAccess* bytes_;
  std::uint64_t objectCount_ = 0;
  std::uint64_t topObject_ = 0;
  std::uint64_t table_ = 0;
  std::uint8_t offsetWidth_ = 0;
  std::uint8_t referenceWidth_ = 0;
};

// Puts a binary property list together, object by object; what an array or dictionary holds is added before
// it.
class BinaryObjectWriter {
 public:
  using Reference = std::uint32_t;

  BinaryObjectWriter();

  Reference addBoolean(bool value);
  Reference addInteger(std::int64_t value);
  Reference addReal(double value);
  Reference addDate(double secondsSinceReferenceDate);
  Reference addData(std::span<const std::byte> value);
  // UTF-8; invalid bytes become U+FFFD.
  Reference addString(std::string_view value);
  Reference addUID(std::uint64_t value);
  Reference addArray(std::span<const Reference> elements);
  // As many values as keys.
  Reference addDictionary(std::span<const Reference> keys, std::span<const Reference> values);

  std::vector<std::byte> finish(Reference top) &&;

 private:
  Reference begin();
  void put(std::uint64_t value, unsigned width);
  void putHeader(unsigned kind, std::uint64_t count);
  void putReferences(std::span<const Reference> references);
  void narrowReferences(unsigned width);

  std::vector<std::byte> bytes_;  // the file so far; references take four bytes each until it is finished
  std::vector<std::uint64_t> offsets_;
};

}  // namespace base
