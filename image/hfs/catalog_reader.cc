#include "image/hfs/catalog_reader.h"

#include <algorithm>

#include "image/hfs/catalog_format.h"

namespace image::hfs {
namespace {

base::Error recordError(std::uint32_t folder) {
  return {"a catalog record below item " + std::to_string(folder) + " is damaged"};
}

std::uint16_t typeOf(const RecordView& record) { return base::ByteReader(record.data).get<std::uint16_t>(); }

// Puts it where another one may have been, whose memory serves again.
base::Result<void> decodeRecord(const CatalogKey& key, std::span<const std::byte> data,
                                CatalogRecord& record) {
  record.parent = key.parent;
  record.name.assign(key.name.text());
  base::ByteReader in(data);
  const auto type = in.get<std::uint16_t>();
  record.isFolder = type == kFolderRecord;
  record.flags = in.get<std::uint16_t>();
  in.skip(4);  // a folder's count of items; reserved in a file
  record.id = in.get<std::uint32_t>();
  record.created = in.get<std::uint32_t>();
  record.modified = in.get<std::uint32_t>();
  record.changed = in.get<std::uint32_t>();
  record.accessed = in.get<std::uint32_t>();
  in.skip(4);
  record.owner = in.get<std::uint32_t>();
  record.group = in.get<std::uint32_t>();
  in.skip(1);
  record.ownerFlags = in.get<std::uint8_t>();
  record.mode = in.get<std::uint16_t>();
  record.special = in.get<std::uint32_t>();
  std::ranges::copy(in.take(record.finderInfo.size()), record.finderInfo.begin());
  in.skip(4 + 4);
  record.data = type == kFileRecord ? getFork(in) : ForkRecord();
  record.resources = type == kFileRecord ? getFork(in) : ForkRecord();
  const bool isKnown = type == kFolderRecord || type == kFileRecord;
  if (!isKnown || !in.ok() || record.id < 2 || record.name.empty()) return recordError(key.parent);
  return {};
}

BTreeReader::Probe probeFor(std::uint32_t parent, std::u16string_view name, NameOrder order) {
  return [parent, name, order](std::span<const std::byte> bytes) {
    const CatalogKey key = catalogKey(bytes);
    if (const auto parents = key.parent <=> parent; parents != 0) return parents;
    return compareNames(key.name.text(), name, order);
  };
}

}  // namespace

base::Result<std::optional<CatalogRecord>> CatalogReader::find(std::uint32_t folder,
                                                               std::u16string_view name) const {
  CatalogRecord record;
  base::Result<void> decoded;
  const auto decode = [&](const RecordView& view) {
    decoded = decodeRecord(catalogKey(view.key), view.data, record);
  };
  const auto found = tree_.find(probeFor(folder, name, order_), decode);
  if (!found) return found.error();
  if (!*found) return std::optional<CatalogRecord>();
  if (!decoded) return decoded.error();
  if (record.name != name) return std::optional<CatalogRecord>();
  return std::optional(std::move(record));
}

base::Result<CatalogRecord> CatalogReader::byID(std::uint32_t id) const {
  const base::Error damaged{"the thread record of item " + std::to_string(id) + " is damaged"};
  std::uint32_t parent = 0;
  std::u16string name;
  bool whole = false;
  const auto readThread = [&](const RecordView& view) {
    base::ByteReader in(view.data);
    const auto type = in.get<std::uint16_t>();
    in.skip(2);
    parent = in.get<std::uint32_t>();
    name.resize(std::min<std::size_t>(in.get<std::uint16_t>(), kMaxNameUnits));
    for (char16_t& unit : name) unit = static_cast<char16_t>(in.get<std::uint16_t>());
    whole = in.ok() && (type == kFolderThread || type == kFileThread);
  };
  const auto hasThread = tree_.find(probeFor(id, {}, order_), readThread);
  if (!hasThread) return hasThread.error();
  if (!*hasThread) return base::Error{"there is no item " + std::to_string(id)};
  if (!whole) return damaged;
  auto record = find(parent, name);
  if (!record) return record.error();
  if (!*record || (*record)->id != id) return damaged;
  return **std::move(record);
}

base::Result<void> CatalogReader::list(std::uint32_t folder, const Visitor& visit) const {
  bool isFolder = false;
  CatalogRecord record;
  const auto visitRecord = [&](const RecordView& view) -> base::Result<bool> {
    const CatalogKey key = catalogKey(view.key);
    if (key.parent != folder) return false;
    const auto type = typeOf(view);
    if (!isFolder) {
      isFolder = type == kFolderThread;
      return isFolder;
    }
    if (auto decoded = decodeRecord(key, view.data, record); !decoded) return decoded.error();
    return visit(record);
  };
  if (auto scanned = tree_.scan(probeFor(folder, {}, order_), visitRecord); !scanned) return scanned;
  if (!isFolder) return base::Error{"there is no folder " + std::to_string(folder)};
  return {};
}

}  // namespace image::hfs
