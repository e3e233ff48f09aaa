#pragma once

#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/binary_objects.h"
#include "base/keyed_archive.h"
#include "base/random_access.h"

namespace tests::store {

inline std::string textOf(const std::vector<std::byte>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline std::vector<std::byte> bytesOf(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

inline base::KeyedDecoder rootOf(std::vector<std::byte> archive) {
  return base::unarchivedRoot(std::make_shared<base::MemoryRandomAccess>(std::move(archive))).value();
}

inline base::KeyedDecoder rootOf(const base::Codable& record) {
  return rootOf(base::archivedDataWithRootObject(record));
}

// The archive with the URL of one file turned into one that is no file's.
inline std::string withDamagedURL(std::string archive, const std::string& path) {
  const auto at = archive.find("file://" + path);
  return at == std::string::npos ? archive : archive.replace(at, 4, "gone");
}

// The keys of the archive's root object, in the order in which they stand there. It is the one object that
// has the given key.
inline std::vector<std::string> keysOf(const base::Codable& record, std::string_view key) {
  const base::MemoryRandomAccess bytes(base::archivedDataWithRootObject(record));
  const auto reader = base::BinaryObjectReader::open(bytes).value();
  for (std::uint64_t i = 0; i < reader.objectCount(); ++i) {
    const auto object = reader.object(i);
    if (!object || object->kind != base::BinaryObject::Kind::dictionary) continue;
    std::vector<std::string> keys;
    for (std::uint64_t position = 0; position < object->count; ++position) {
      const auto name = reader.string(reader.object(reader.reference(*object, position).value()).value());
      if (!name->starts_with('$')) keys.push_back(*name);
    }
    if (std::ranges::count(keys, key) != 0) return keys;
  }
  return {};
}

}  // namespace tests::store
