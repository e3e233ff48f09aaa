#include "image/hfs/attributes_reader.h"

#include <optional>

namespace image::hfs {
namespace {

constexpr std::uint32_t kInlineData = 0x10;
constexpr std::uint32_t kForkData = 0x20;
constexpr std::uint32_t kMoreExtents = 0x30;

// Collects the records of one item; an attribute is whole once a record of the next one comes.
class Collector {
 public:
  Collector(std::uint32_t file, const AttributesReader::Visitor& visit) : file_(file), visit_(visit) {}

  base::Result<bool> take(const RecordView& record) {
    const AttributeKey key = attributeKey(record.key);
    if (key.file != file_) return false;
    base::ByteReader in(record.data);
    const auto type = in.get<std::uint32_t>();
    const auto taken = type == kMoreExtents ? takeExtents(key, in) : takeAttribute(key, type, in);
    if (!taken) return taken.error();
    return true;
  }

  base::Result<void> finish() {
    if (!pending_) return {};
    const StoredAttribute whole = *std::move(pending_);
    pending_.reset();
    return visit_(whole);
  }

 private:
  base::Error damaged() const { return {"an attribute of item " + std::to_string(file_) + " is damaged"}; }

  base::Result<void> takeAttribute(const AttributeKey& key, std::uint32_t type, base::ByteReader& in) {
    if (auto finished = finish(); !finished) return finished;
    StoredAttribute attribute{.name = std::u16string(key.name.text()), .isFork = type == kForkData};
    if (type == kForkData) {
      in.skip(4);
      attribute.fork = getFork(in);
    } else {
      in.skip(8);
      attribute.value = in.take(in.get<std::uint32_t>());
    }
    if ((type != kForkData && type != kInlineData) || !in.ok() || key.firstBlock != 0) return damaged();
    if (!attribute.isFork) return visit_(attribute);
    pending_ = std::move(attribute);
    return {};
  }

  base::Result<void> takeExtents(const AttributeKey& key, base::ByteReader& in) {
    if (!pending_ || pending_->name != key.name.text()) return damaged();
    in.skip(4);
    std::uint64_t known = 0;
    for (const Extent& extent : pending_->fork.extents) known += extent.blocks;
    if (known != key.firstBlock) return damaged();
    for (int i = 0; i < 8 && in.remaining() >= 8; ++i) {
      const auto first = in.get<std::uint32_t>();
      const auto blocks = in.get<std::uint32_t>();
      if (blocks != 0) pending_->fork.extents.push_back({first, blocks});
    }
    return in.ok() ? base::Result<void>() : damaged();
  }

  std::uint32_t file_;
  const AttributesReader::Visitor& visit_;
  // In blocks, and more of its extents may follow.
  std::optional<StoredAttribute> pending_{};
};

}  // namespace

base::Result<void> AttributesReader::list(std::uint32_t file, const Visitor& visit) const {
  Collector collector(file, visit);
  const auto fromFile = [file](std::span<const std::byte> key) {
    return attributeKey(key).file < file ? std::strong_ordering::less : std::strong_ordering::greater;
  };
  auto scanned = tree_.scan(fromFile, [&](const RecordView& record) { return collector.take(record); });
  if (!scanned) return scanned;
  return collector.finish();
}

}  // namespace image::hfs
