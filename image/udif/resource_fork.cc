#include "image/udif/resource_fork.h"

#include <algorithm>
#include <string>

#include "base/byte_order.h"
#include "base/unicode.h"

namespace image::udif {
namespace {

using base::PropertyList;
using Bytes = std::span<const std::byte>;

constexpr std::uint32_t kBlockTableType = 0x626C6B78;  // "blkx"

const base::Error& damaged() {
  static const base::Error error{"its resource fork is damaged"};
  return error;
}

// From an offset on; empty where that lies outside.
Bytes from(Bytes bytes, std::size_t offset) { return bytes.subspan(std::min(offset, bytes.size())); }

struct Fork {
  Bytes data;
  Bytes types;
  Bytes names;
};

base::Result<Fork> parts(Bytes bytes) {
  base::ByteReader head(bytes);
  const std::size_t dataAt = head.get<std::uint32_t>();
  const std::size_t mapAt = head.get<std::uint32_t>();
  const std::size_t dataBytes = head.get<std::uint32_t>();
  const std::size_t mapBytes = head.get<std::uint32_t>();
  if (!head.ok() || dataAt + dataBytes > bytes.size() || mapAt + mapBytes > bytes.size()) return damaged();
  const Bytes map = bytes.subspan(mapAt, mapBytes);
  base::ByteReader in(map);
  in.skip(16 + 4 + 2 + 2);
  const std::size_t typesAt = in.get<std::uint16_t>();
  const std::size_t namesAt = in.get<std::uint16_t>();
  if (!in.ok()) return damaged();
  return Fork{bytes.subspan(dataAt, dataBytes), from(map, typesAt), from(map, namesAt)};
}

// A length and that many bytes; empty where there is none.
std::string nameAt(const Fork& fork, std::uint16_t offset) {
  constexpr std::uint16_t kNone = 0xFFFF;
  if (offset == kNone) return {};
  base::ByteReader in(from(fork.names, offset));
  const Bytes name = in.take(in.get<std::uint8_t>());
  if (!in.ok()) return {};
  return base::repairedUTF8({reinterpret_cast<const char*>(name.data()), name.size()});
}

base::Result<PropertyList> resource(const Fork& fork, base::ByteReader& references) {
  const auto id = static_cast<std::int16_t>(references.get<std::uint16_t>());
  const auto name = references.get<std::uint16_t>();
  const std::uint32_t place = references.get<std::uint32_t>() & 0xFFFFFF;
  references.skip(4);
  base::ByteReader in(from(fork.data, place));
  const Bytes data = in.take(in.get<std::uint32_t>());
  if (!references.ok() || !in.ok()) return damaged();
  return PropertyList(PropertyList::Dictionary{{"ID", std::to_string(id)},
                                               {"Name", nameAt(fork, name)},
                                               {"Data", PropertyList::Data(data.begin(), data.end())}});
}

}  // namespace

base::Result<PropertyList> readResourceFork(Bytes bytes) {
  const auto fork = parts(bytes);
  if (!fork) return fork.error();
  PropertyList::Array tables;
  std::size_t tableBytes = 0;
  constexpr std::size_t kReferenceBytes = 12;
  const std::size_t mostTables = fork->types.size() / kReferenceBytes;
  base::ByteReader types(fork->types);
  const auto count = static_cast<std::uint16_t>(types.get<std::uint16_t>() + 1);
  for (std::uint16_t i = 0; i < count && types.ok(); ++i) {
    const auto type = types.get<std::uint32_t>();
    const unsigned resources = types.get<std::uint16_t>() + 1u;
    base::ByteReader references(from(fork->types, types.get<std::uint16_t>()));
    for (unsigned j = 0; j < resources && type == kBlockTableType; ++j) {
      auto table = resource(*fork, references);
      if (!table) return table.error();
      tableBytes += base::find<PropertyList::Data>(*table->as<PropertyList::Dictionary>(), "Data")->size();
      // Each is named once, and no two have the same bytes.
      if (tableBytes > fork->data.size() || tables.size() == mostTables) return damaged();
      tables.push_back(*std::move(table));
    }
  }
  if (!types.ok()) return damaged();
  return PropertyList(
      PropertyList::Dictionary{{"resource-fork", PropertyList::Dictionary{{"blkx", std::move(tables)}}}});
}

}  // namespace image::udif
