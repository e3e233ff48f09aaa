#include "tests/image/hand_made_volume.h"

#include <algorithm>

#include "image/hfs/btree.h"

namespace image {
namespace {

using Bytes = std::vector<std::byte>;

std::span<const std::byte> bytesOf(std::string_view text) { return std::as_bytes(std::span(text)); }

void putName(std::u16string_view name, base::ByteWriter& out) {
  out.put(static_cast<std::uint16_t>(name.size()));
  for (const char16_t unit : name) out.put(static_cast<std::uint16_t>(unit));
}

std::uint32_t blocksOf(std::span<const hfs::Extent> extents) {
  std::uint32_t blocks = 0;
  for (const hfs::Extent& extent : extents) blocks += extent.blocks;
  return blocks;
}

void putExtents(std::span<const hfs::Extent> extents, base::ByteWriter& out) {
  for (const hfs::Extent& extent : extents) out.put(extent.firstBlock).put(extent.blocks);
  out.zeros(8 * (8 - extents.size()));
}

std::span<const hfs::Extent> eightFrom(const std::vector<hfs::Extent>& extents, std::size_t first) {
  return std::span(extents).subspan(first, std::min<std::size_t>(8, extents.size() - first));
}

void putRecordFork(const HandMadeVolume::Fork& fork, base::ByteWriter& out) {
  out.put(fork.size).put(std::uint32_t{0}).put(blocksOf(fork.extents));
  putExtents(eightFrom(fork.extents, 0), out);
}

Bytes attributeKey(std::uint32_t item, std::uint32_t firstBlock, std::u16string_view name) {
  Bytes key;
  base::ByteWriter out(key);
  out.put(static_cast<std::uint16_t>(12 + 2 * name.size())).zeros(2).put(item).put(firstBlock);
  putName(name, out);
  return key;
}

template <class Records>
class RecordsOf final : public hfs::RecordSource {
 public:
  explicit RecordsOf(const Records& records) {
    for (const auto& [key, data] : records) records_.emplace_back(&key, &data);
  }
  Position begin() const override { return {}; }
  Position end() const override { return {static_cast<std::uint32_t>(records_.size()), 0}; }
  Position next(Position at) const override { return {at.major + 1, 0}; }
  Sizes sizes(Position at) const override {
    return {records_[at.major].first->size(), records_[at.major].second->size()};
  }
  void putKey(Position at, base::ByteWriter& out) const override { out.put(*records_[at.major].first); }
  void putData(Position at, base::ByteWriter& out) const override { out.put(*records_[at.major].second); }

 private:
  std::vector<std::pair<const Bytes*, const Bytes*>> records_;
};

}  // namespace

HandMadeVolume::HandMadeVolume(std::u16string_view name) : name_(name), blocks_(kBlockBytes) {
  Bytes root;
  base::ByteWriter out(root);
  out.put(std::uint16_t{1}).put(std::uint16_t{0}).zeros(4).put(kRoot);
  for (int i = 0; i < 4; ++i) out.put(kDate);
  out.zeros(4 + 10).put(std::uint16_t{0040755}).zeros(4 + 32 + 8);
  catalog_.push_back({1, name_, root});
  Bytes thread;
  base::ByteWriter threadOut(thread);
  threadOut.put(std::uint16_t{3}).zeros(2).put(std::uint32_t{1});
  putName(name_, threadOut);
  catalog_.push_back({kRoot, u"", thread});
}

HandMadeVolume::Fork HandMadeVolume::store(std::string_view bytes, std::uint32_t extents) {
  Fork fork{.size = bytes.size()};
  const auto all = bytesOf(bytes);
  const std::size_t blocks = (bytes.size() + kBlockBytes - 1) / kBlockBytes;
  for (std::size_t i = 0, done = 0; i < extents && done < blocks; ++i) {
    const std::size_t count = (blocks - done) / (extents - i) + ((blocks - done) % (extents - i) != 0);
    fork.extents.push_back(
        {static_cast<std::uint32_t>(blocks_.size() / kBlockBytes), static_cast<std::uint32_t>(count)});
    const auto part = all.subspan(done * kBlockBytes);
    const std::size_t size = std::min(part.size(), count * kBlockBytes);
    blocks_.insert(blocks_.end(), part.begin(), part.begin() + static_cast<std::ptrdiff_t>(size));
    blocks_.resize((blocks_.size() + kBlockBytes - 1) / kBlockBytes * kBlockBytes);
    if (extents > 1) blocks_.resize(blocks_.size() + kBlockBytes, std::byte{0xEE});
    done += count;
  }
  return fork;
}

void HandMadeVolume::putFork(std::uint32_t file, std::uint8_t kind, const Fork& fork, Bytes& into) {
  base::ByteWriter out(into);
  putRecordFork(fork, out);
  for (std::size_t i = 8; i < fork.extents.size(); i += 8) {
    Bytes key;
    base::ByteWriter(key)
        .put(std::uint16_t{10})
        .put(kind)
        .zeros(1)
        .put(file)
        .put(blocksOf(std::span(fork.extents).first(i)));
    base::ByteWriter data(overflowRecords_[key]);
    putExtents(eightFrom(fork.extents, i), data);
  }
}

std::uint32_t HandMadeVolume::add(const Record& record, bool isFolder) {
  const std::uint32_t id = nextID_++;
  ++(isFolder ? folders_ : files_);
  Bytes data;
  base::ByteWriter out(data);
  out.put(static_cast<std::uint16_t>(isFolder ? 1 : 2)).put(record.flags).zeros(4).put(id);
  out.put(record.created).put(record.modified).put(kDate).put(record.accessed).zeros(4);
  out.put(std::uint32_t{501}).put(std::uint32_t{20}).zeros(1).put(record.ownerFlags).put(record.mode);
  out.put(record.special);
  std::string finderInfo = record.finderInfo;
  finderInfo.resize(32);
  out.put(bytesOf(finderInfo)).zeros(8);
  if (!isFolder) {
    putFork(id, 0x00, record.data, data);
    putFork(id, 0xFF, record.resources, data);
  }
  catalog_.push_back({record.parent, record.name, data});
  Bytes thread;
  base::ByteWriter threadOut(thread);
  threadOut.put(static_cast<std::uint16_t>(isFolder ? 3 : 4)).zeros(2).put(record.parent);
  putName(record.name, threadOut);
  catalog_.push_back({id, u"", thread});
  return id;
}

std::uint32_t HandMadeVolume::addFolder(const Record& record) { return add(record, true); }
std::uint32_t HandMadeVolume::addFile(const Record& record) { return add(record, false); }

void HandMadeVolume::addAttribute(std::uint32_t item, std::u16string_view name, std::string_view value) {
  base::ByteWriter(attributeRecords_[attributeKey(item, 0, name)])
      .put(std::uint32_t{0x10})
      .zeros(8)
      .put(static_cast<std::uint32_t>(value.size()))
      .put(bytesOf(value));
}

void HandMadeVolume::addAttribute(std::uint32_t item, std::u16string_view name, const Fork& value) {
  base::ByteWriter out(attributeRecords_[attributeKey(item, 0, name)]);
  out.put(std::uint32_t{0x20}).zeros(4);
  putRecordFork(value, out);
  for (std::size_t i = 8; i < value.extents.size(); i += 8) {
    const std::uint32_t before = blocksOf(std::span(value.extents).first(i));
    base::ByteWriter more(attributeRecords_[attributeKey(item, before, name)]);
    more.put(std::uint32_t{0x30}).zeros(4);
    putExtents(eightFrom(value.extents, i), more);
  }
}

HandMadeVolume::Fork HandMadeVolume::storeTree(const Records& records, std::uint16_t nodeBytes,
                                               std::uint16_t maxKeyLength, std::uint32_t extents,
                                               std::uint32_t tail) {
  const RecordsOf<Records> source(records);
  const hfs::BTreeFile tree(source, {.nodeBytes = nodeBytes,
                                     .maxKeyLength = maxKeyLength,
                                     .keyCompareType = keyCompareType,
                                     .attributes = 6});
  std::string bytes(tree.size(), '\0');
  const auto nodes = std::as_writable_bytes(std::span(bytes));
  for (std::uint32_t i = 0; i < tree.nodeCount(); ++i)
    tree.makeNode(i, nodes.subspan(std::size_t{i} * nodeBytes, nodeBytes));
  return store(bytes + std::string(tail, '\0'), extents);
}

Bytes HandMadeVolume::header(const Fork& overflow, const Fork& catalog, const Fork& attributesFile) const {
  Bytes bytes;
  base::ByteWriter out(bytes);
  const bool isX = keyCompareType != 0;
  out.put(static_cast<std::uint16_t>(isX ? 0x4858 : 0x482B)).put(static_cast<std::uint16_t>(isX ? 5 : 4));
  out.put(attributes).put(lastMountedVersion).put(journalInfoBlock);
  out.put(kDate).put(kDate).zeros(4).put(kDate).put(files_).put(folders_);
  out.put(kBlockBytes).put(static_cast<std::uint32_t>(blocks_.size() / kBlockBytes + 1));
  out.put(std::uint32_t{1}).zeros(12).put(nextID_).zeros(4 + 8 + 32);
  out.zeros(80);
  for (const Fork* fork : {&overflow, &catalog, &attributesFile}) putRecordFork(*fork, out);
  out.zeros(80);
  return bytes;
}

// The overflow file comes last: the catalog may be scattered.
std::vector<std::byte> HandMadeVolume::make() {
  const auto order = keyCompareType == 0xBC ? hfs::NameOrder::binary : hfs::NameOrder::caseFolding;
  Records records{KeyLess{hfs::catalogOrder(order)}};
  for (const Entry& entry : catalog_) {
    Bytes key;
    base::ByteWriter out(key);
    out.put(static_cast<std::uint16_t>(6 + 2 * entry.name.size())).put(entry.parent);
    putName(entry.name, out);
    records[key] = entry.data;
  }
  const Fork catalog = storeTree(records, 4096, 516, catalogExtents);
  Bytes unused;
  putFork(4, 0x00, catalog, unused);
  const Fork attributesFile =
      attributeRecords_.empty() ? Fork{} : storeTree(attributeRecords_, 8192, 266, 1, attributesFileTail);
  const Fork overflow = storeTree(overflowRecords_, 4096, 10, 1);
  const Bytes head = header(overflow, catalog, attributesFile);
  Bytes volume = blocks_;
  volume.resize(volume.size() + kBlockBytes);
  std::ranges::copy(head, volume.begin() + 1024);
  std::ranges::copy(head, volume.end() - 1024);
  return volume;
}

}  // namespace image
