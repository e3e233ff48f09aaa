#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "base/file_url.h"

namespace base {

class KeyedArchive;
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
  friend class KeyedArchive;
  explicit KeyedEncoder(KeyedArchive& archive) : archive_(archive) {}
  void append(std::string_view key, std::uint32_t value);

  KeyedArchive& archive_;
  std::vector<std::uint32_t> keys_;
  std::vector<std::uint32_t> values_;
};

// The bytes of a keyed archive (the platform's container: a binary property list) whose root is this object.
// Takes time in proportion to the output, and memory of about twice its size.
std::vector<std::byte> archivedDataWithRootObject(const Codable& root);

}  // namespace base
