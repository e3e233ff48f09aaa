#include "tests/image/hand_made_image.h"

#include <algorithm>
#include <array>
#include <bzlib.h>
#include <gtest/gtest.h>
#include <lzma.h>
#include <random>
#include <span>
#include <zlib.h>

#include "base/xml_property_list.h"
#include "image/codec/checksum.h"

namespace image {
namespace {

using Bytes = std::vector<std::byte>;

// Literals, and each run of one byte as a copy of the byte before it.
Bytes storedAsADC(const Bytes& plain) {
  Bytes stored;
  for (std::size_t at = 0; at < plain.size();) {
    stored.push_back(std::byte{0x80});
    stored.push_back(plain[at]);
    std::size_t same = 1;
    while (same < 64 && at + same < plain.size() && plain[at + same] == plain[at]) ++same;
    at += 1;
    if (same < 5) continue;
    stored.push_back(static_cast<std::byte>(0x40 | (same - 1 - 4)));
    stored.insert(stored.end(), 2, std::byte{0});
    at += same - 1;
  }
  return stored;
}

Bytes storedAsBzip2(const Bytes& plain) {
  Bytes stored(plain.size() + plain.size() / 100 + 700);
  auto length = static_cast<unsigned>(stored.size());
  EXPECT_EQ(BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(stored.data()), &length,
                                     reinterpret_cast<char*>(const_cast<std::byte*>(plain.data())),
                                     static_cast<unsigned>(plain.size()), 1, 0, 0),
            BZ_OK);
  stored.resize(length);
  return stored;
}

Bytes storedAsXz(const Bytes& plain) {
  Bytes stored(lzma_stream_buffer_bound(plain.size()));
  std::size_t length = 0;
  EXPECT_EQ(lzma_easy_buffer_encode(1, LZMA_CHECK_CRC32, nullptr,
                                    reinterpret_cast<const std::uint8_t*>(plain.data()), plain.size(),
                                    reinterpret_cast<std::uint8_t*>(stored.data()), &length, stored.size()),
            LZMA_OK);
  stored.resize(length);
  return stored;
}

Bytes storedAsZlib(const Bytes& plain) {
  uLongf length = compressBound(static_cast<uLong>(plain.size()));
  Bytes stored(length);
  EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(stored.data()), &length,
                      reinterpret_cast<const Bytef*>(plain.data()), static_cast<uLong>(plain.size()), 6),
            Z_OK);
  stored.resize(length);
  return stored;
}

}  // namespace

Bytes storedAs(udif::RunType type, const Bytes& plain) {
  switch (type) {
    case udif::RunType::raw:
      return plain;
    case udif::RunType::adc:
      return storedAsADC(plain);
    case udif::RunType::zlib:
      return storedAsZlib(plain);
    case udif::RunType::bzip2:
      return storedAsBzip2(plain);
    case udif::RunType::lzma:
      return storedAsXz(plain);
    case udif::RunType::lzfse:
      return Bytes(100, std::byte{'b'});
    default:
      return {};
  }
}

Bytes handMadeImage(const std::vector<HandMadeTable>& tables, const HandMadeLayout& layout) {
  std::vector<udif::BlockTable> decoded;
  for (const HandMadeTable& table : tables) {
    decoded.push_back({.name = table.name,
                       .descriptor = static_cast<std::uint32_t>(decoded.size()),
                       .firstSector = table.firstSector,
                       .sectorCount = table.sectorCount,
                       .dataOffset = table.dataOffset});
    codec::CRC32 sum;
    for (const HandMadeChunk& chunk : table.chunks) {
      decoded.back().runs.push_back({chunk.type, chunk.firstSector, chunk.plain.size() / 512, 0, 0});
      if (chunk.type != udif::RunType::ignored) sum.append(codec::CRC32::of(chunk.plain));
    }
    if (layout.summed) decoded.back().checksum = sum.value();
  }
  Bytes file(layout.dataForkOffset, std::byte{0xEE});
  const auto store = [&](std::size_t table, std::size_t chunk) {
    const auto stored = storedAs(tables[table].chunks[chunk].type, tables[table].chunks[chunk].plain);
    if (stored.empty()) return;
    file.insert(file.end(), std::max<std::size_t>(layout.gap, decoded[table].dataOffset), std::byte{0xDD});
    decoded[table].runs[chunk].offset = file.size() - layout.dataForkOffset - decoded[table].dataOffset;
    decoded[table].runs[chunk].length = stored.size();
    file.insert(file.end(), stored.begin(), stored.end());
  };
  std::vector<std::pair<std::size_t, std::size_t>> order;
  for (std::size_t table = 0; table < tables.size(); ++table)
    for (std::size_t chunk = 0; chunk < tables[table].chunks.size(); ++chunk)
      order.emplace_back(table, chunk);
  if (layout.backwards) std::ranges::reverse(order);
  for (const auto& [table, chunk] : order) store(table, chunk);
  udif::Trailer trailer;
  trailer.dataForkOffset = layout.dataForkOffset;
  trailer.dataForkLength = file.size() - layout.dataForkOffset;
  for (const auto& table : decoded)
    trailer.sectorCount = std::max(trailer.sectorCount, table.firstSector + table.sectorCount);
  if (layout.summed)
    trailer.dataChecksum =
        codec::CRC32::of(std::span<const std::byte>(file).subspan(layout.dataForkOffset)).value();
  trailer.masterChecksum = udif::masterChecksum(decoded);
  const auto text = base::writeXMLPropertyList(udif::encodeResources(decoded, 0));
  trailer.propertyListOffset = file.size();
  trailer.propertyListLength = text.size();
  const auto list = std::as_bytes(std::span(text));
  file.insert(file.end(), list.begin(), list.end());
  const auto end = udif::encodeTrailer(trailer);
  file.insert(file.end(), end.begin(), end.end());
  return file;
}

Bytes textSectors(std::size_t count, unsigned seed) {
  std::minstd_rand random(seed + 1);
  Bytes bytes(count * 512);
  for (auto& b : bytes) b = static_cast<std::byte>('a' + random() % 4);
  std::fill_n(bytes.begin(), std::min<std::size_t>(bytes.size(), 100), static_cast<std::byte>(seed));
  return bytes;
}

}  // namespace image
