#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/file_url.h"
#include "base/random_access.h"
#include "base/result.h"

namespace base {

class KeyedArchiveReader;

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
  KeyedDecoder(std::shared_ptr<const KeyedArchiveReader> archive, std::uint64_t object)
      : archive_(std::move(archive)), object_(object) {}

  std::shared_ptr<const KeyedArchiveReader> archive_;
  std::uint64_t object_;
};

// The root object of a keyed archive. An Error when the bytes are no binary property list, no keyed archive,
// or the root is missing or no object with keys.
Result<KeyedDecoder> unarchivedRoot(std::shared_ptr<const RandomAccess> bytes);

}  // namespace base
