#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/file_url.h"
#include "base/random_access.h"
#include "base/result.h"

namespace base {

class KeyedArchiver;
class KeyedEncoder;

// A record that can be the content of a keyed archive.
class Codable {
 public:
  virtual ~Codable() = default;
  // The name that the archive gives to the record's class, whose only ancestor is the platform's root object.
  virtual std::string_view className() const = 0;
  // Called once per archive, on the archiving thread.
  virtual void encodeWithCoder(KeyedEncoder& coder) const = 0;
};

// Takes the values of one record, each under a key of its own; they are stored in the order of the calls.
// What is absent (nullopt, nullptr) is stored as nil. Strings are UTF-8; invalid sequences become U+FFFD.
class KeyedEncoder {
 public:
  KeyedEncoder(const KeyedEncoder&) = delete;
  KeyedEncoder& operator=(const KeyedEncoder&) = delete;

  void encodeString(std::string_view key, std::optional<std::string_view> value);
  void encodeURL(std::string_view key, const std::optional<FileURL>& value);
  void encodeURLs(std::string_view key, std::span<const FileURL> values);
  void encodeInteger(std::string_view key, std::int64_t value);
  void encodeBool(std::string_view key, bool value);
  // The object must live until the archive is complete: one that is encoded twice is stored once.
  void encodeObject(std::string_view key, const Codable* object);

 private:
  friend class KeyedArchiver;
  explicit KeyedEncoder(KeyedArchiver& archive) : archive_(archive) {}
  void append(std::string_view key, std::uint32_t value);

  KeyedArchiver& archive_;
  std::vector<std::uint32_t> keys_;
  std::vector<std::uint32_t> values_;
};

// The bytes of a keyed archive (the platform's container: a binary property list) whose root is this object.
// Takes time in proportion to the output, and memory of about twice its size.
std::vector<std::byte> archivedDataWithRootObject(const Codable& root);

class KeyedUnarchiver;

// One object of a keyed archive, cheap to copy. Reads the archive only as far as it is asked: looking at a
// few values costs a few small reads, however many URLs the archive lists elsewhere. Holds the archive open.
// A value that is absent, nil, of another kind or damaged reads as nullopt (0 and false for numbers).
// All decoders of one archive share a page cache: use them from one thread at a time.
class KeyedDecoder {
 public:
  // Empty when the object's class entry is damaged.
  std::string className() const;
  // Whether something was encoded under this key, be it nil.
  bool containsValue(std::string_view key) const;

  std::optional<std::string> decodeString(std::string_view key) const;
  std::optional<FileURL> decodeURL(std::string_view key) const;
  // Reads the whole list, in time and memory in proportion to the archive's size. One damaged URL, or one
  // that is no file URL, damages the list.
  std::optional<std::vector<FileURL>> decodeURLs(std::string_view key) const;
  std::int64_t decodeInteger(std::string_view key) const;
  bool decodeBool(std::string_view key) const;
  std::optional<KeyedDecoder> decodeObject(std::string_view key) const;

 private:
  friend Result<KeyedDecoder> unarchivedRoot(std::shared_ptr<const RandomAccess>);
  KeyedDecoder(std::shared_ptr<const KeyedUnarchiver> archive, std::uint64_t object)
      : archive_(std::move(archive)), object_(object) {}

  std::shared_ptr<const KeyedUnarchiver> archive_;
  std::uint64_t object_;
};

// The root object of a keyed archive. An Error when the bytes are no binary property list, no keyed archive,
// or the root is missing or no object with keys.
Result<KeyedDecoder> unarchivedRoot(std::shared_ptr<const RandomAccess> bytes);

}  // namespace base
