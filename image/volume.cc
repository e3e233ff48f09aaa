#include "image/volume.h"

#include <algorithm>
#include <array>
#include <limits>
#include <unordered_set>
#include <utility>

#include "base/unicode.h"
#include "image/block/disk.h"
#include "image/hfs/attributes.h"
#include "image/hfs/compressed_file.h"
#include "image/hfs/cost_cache.h"
#include "image/hfs/folder_names.h"
#include "image/hfs/volume_reader.h"
#include "image/item_kind.h"

namespace image {
namespace {

using hfs::CatalogRecord;

constexpr std::string_view kResourceFork = "user.com.apple.ResourceFork";
// Of one item; more than any system has a way to ask for.
constexpr std::size_t kMostAttributes = 1 << 14;
constexpr std::string_view kFinderInfo = "user.com.apple.FinderInfo";

// Of a time in nanoseconds since 1970.
Instant instant(std::int64_t nanoseconds) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  std::int64_t seconds = nanoseconds / kNanoseconds;
  if (nanoseconds % kNanoseconds < 0) --seconds;
  return {seconds, static_cast<std::uint32_t>(nanoseconds - seconds * kNanoseconds)};
}

// A date that was never set is another one, or the beginning of 1970.
Instant instant(std::uint32_t date, std::uint32_t otherwise, std::uint32_t fraction) {
  constexpr std::int64_t kSecondsFrom1904To1970 = 2'082'844'800;
  if (date == 0) date = otherwise;
  if (date == 0) return {};
  return {date - kSecondsFrom1904To1970, fraction};
}

// A record of a file is never a folder's, whatever its mode says.
ItemKind kindOf(const CatalogRecord& record) {
  if (record.isFolder) return ItemKind::folder;
  const auto kind = kindOfMode(record.mode).value_or(ItemKind::file);
  return kind == ItemKind::folder ? ItemKind::file : kind;
}

// From 8 bits of major and 24 of minor number; a minor number that is too large is the largest.
std::uint32_t deviceOf(std::uint32_t special) {
  constexpr std::uint32_t kMostMinor = 0xFFFFF;
  return special >> 24 << 20 | std::min(special & 0xFFFFFF, kMostMinor);
}

// What the Finder keeps of an item, without what stands there for the file system's own use: a symbolic
// link's type, and in the second half the item's number, the date it was added and a count of its changes.
std::vector<std::byte> finderInfoOf(const CatalogRecord& record) {
  std::vector<std::byte> info(record.finderInfo.begin(), record.finderInfo.end());
  const auto clear = [&](std::ptrdiff_t from, std::ptrdiff_t bytes) {
    std::fill_n(info.begin() + from, bytes, std::byte{0});
  };
  if (kindOf(record) == ItemKind::symbolicLink) clear(0, 8);
  clear(16, 8);
  clear(28, 4);
  return info;
}

bool isAllZeros(const std::vector<std::byte>& bytes) {
  return std::ranges::all_of(bytes, [](std::byte b) { return b == std::byte{0}; });
}

// Attributes that are not the item's but the file system's.
bool isHidden(std::u16string_view attribute, bool isCompressed) {
  return attribute == hfs::Original::kAttributeName ||
         (isCompressed && attribute == hfs::Compression::kAttributeName);
}

// Says what is there instead, if that has a name.
base::Error noVolume(const OpenedImage& image) {
  constexpr std::string_view kAPFS = "7C3457EF-0000-11AA-AA11-00306543ECAC";
  std::string text = "the image holds no HFS+ volume";
  const auto isOlder = [](const block::Partition& part) { return part.isOlderHFS; };
  const auto isAPFS = [&](const block::Partition& part) {
    return part.type == kAPFS || part.type == "Apple_APFS";
  };
  if (std::ranges::any_of(image.partitions(), isOlder))
    text += ", but one of the older HFS, which is not supported";
  else if (std::ranges::any_of(image.partitions(), isAPFS))
    text += ", but one of APFS, which is not supported";
  return {std::move(text)};
}

class HFSVolume final : public Volume {
 public:
  HFSVolume(std::unique_ptr<OpenedImage> image, std::unique_ptr<block::Disk> part,
            std::unique_ptr<hfs::VolumeReader> reader, std::uint64_t cacheBytes)
      : image_(std::move(image)),
        part_(std::move(part)),
        reader_(std::move(reader)),
        names_(cacheBytes),
        files_(cacheBytes),
        blocks_(cacheBytes) {}

  base::Result<void> readFacts();

  const VolumeFacts& facts() const override { return facts_; }
  std::uint32_t rootID() const override { return hfs::CatalogReader::kRootID; }
  base::Result<std::optional<Item>> lookup(std::uint32_t folder, std::string_view name) const override;
  base::Result<Item> item(std::uint32_t id) const override;
  base::Result<void> list(std::uint32_t folder, const Visitor& visit) const override;
  base::Result<std::string> linkTarget(std::uint32_t id) const override;
  base::Result<std::size_t> read(std::uint32_t id, std::uint64_t offset,
                                 std::span<std::byte> into) const override;
  base::Result<std::vector<std::string>> attributeNames(std::uint32_t id) const override;
  base::Result<std::optional<std::vector<std::byte>>> attribute(std::uint32_t id,
                                                                std::string_view name) const override;

 private:
  using NamesPointer = std::shared_ptr<const hfs::FolderNames>;
  // What reading of a file needs.
  struct File {
    ItemKind kind;
    std::uint64_t size;
    hfs::ForkMap data;
    std::optional<hfs::CompressedFile> compressed{};
  };
  using FilePointer = std::shared_ptr<const File>;

  base::Result<NamesPointer> namesOf(std::uint32_t folder) const;
  base::Result<CatalogRecord> record(std::uint32_t id) const;
  base::Result<Item> itemOf(const CatalogRecord& name) const;
  base::Result<void> setTimes(const CatalogRecord& record, Item& item) const;
  base::Result<std::optional<Item>> itemIn(std::uint32_t folder, std::u16string_view stored) const;
  base::Result<FilePointer> file(std::uint32_t id) const;
  base::Result<void> readCompressed(std::uint32_t id, const hfs::CompressedFile& file, std::uint64_t offset,
                                    std::span<std::byte> into) const;

  std::unique_ptr<OpenedImage> image_;
  std::unique_ptr<block::Disk> part_;
  std::unique_ptr<hfs::VolumeReader> reader_;
  VolumeFacts facts_;
  mutable hfs::CostCache<std::uint32_t, hfs::FolderNames> names_;
  mutable hfs::CostCache<std::uint32_t, File> files_;
  // Of compressed files, by item and number.
  mutable hfs::CostCache<std::uint64_t, std::vector<std::byte>> blocks_;
};

base::Result<void> HFSVolume::readFacts() {
  const hfs::VolumeHeader& header = reader_->header();
  const auto root = reader_->catalog().byID(hfs::CatalogReader::kRootID);
  if (!root) return root.error();
  const auto original = reader_->originalOf(*root);
  if (!original) return original.error();
  facts_ = {.name = original->name ? *original->name : hfs::composedFileName(root->name),
            .isCaseSensitive = header.order == hfs::NameOrder::binary,
            .bytes = header.volumeBytes(),
            .freeBytes = std::uint64_t{header.freeBlocks} * header.blockBytes,
            .blockBytes = header.blockBytes,
            .files = header.fileCount,
            .folders = header.folderCount};
  return {};
}

base::Result<HFSVolume::NamesPointer> HFSVolume::namesOf(std::uint32_t folder) const {
  if (auto known = names_.find(folder)) return known;
  auto read = hfs::FolderNames::read(*reader_, folder);
  if (!read) return read.error();
  const std::uint64_t bytes = (*read)->bytes();
  return names_.keep(folder, *std::move(read), bytes);
}

base::Result<CatalogRecord> HFSVolume::record(std::uint32_t id) const {
  auto record = reader_->catalog().byID(id);
  if (!record) return record;
  return reader_->resolved(*std::move(record));
}

base::Result<void> HFSVolume::setTimes(const CatalogRecord& record, Item& item) const {
  const auto fractions = reader_->fractionsOf(record.id);
  if (!fractions) return fractions.error();
  item.modified = instant(record.modified, record.created, (*fractions)[1]);
  item.created = instant(record.created, record.modified, (*fractions)[0]);
  item.changed = instant(record.changed, record.modified, (*fractions)[2]);
  item.accessed = instant(record.accessed, record.modified, (*fractions)[3]);
  return {};
}

base::Result<Item> HFSVolume::itemOf(const CatalogRecord& name) const {
  const auto record = reader_->resolved(name);
  if (!record) return record.error();
  const auto original = reader_->originalOf(*record);
  if (!original) return original.error();
  Item item{.id = record->id,
            .kind = kindOf(*record),
            .permissions = static_cast<std::uint16_t>(record->mode & 07777),
            .user = record->owner,
            .group = record->group,
            .links = reader_->linksOf(*record)};
  if ((record->mode & hfs::mode::kType) == 0) {
    constexpr std::uint32_t kUnknownUser = 99;
    item.permissions = record->isFolder ? 0755 : 0644;
    item.user = item.group = kUnknownUser;
  }
  if (item.kind == ItemKind::file || item.kind == ItemKind::symbolicLink) {
    const auto compression = hfs::Compression::of(*reader_, *record);
    if (!compression) return compression.error();
    item.size = *compression ? (*compression)->size : record->data.size;
  }
  item.storedSize =
      (std::uint64_t{record->data.blocks} + record->resources.blocks) * reader_->header().blockBytes;
  if (item.kind == ItemKind::characterDevice || item.kind == ItemKind::blockDevice)
    item.device = original->device.value_or(deviceOf(record->special));
  if (auto set = setTimes(*record, item); !set) return set.error();
  if (const auto& times = original->times) {
    item.created = instant(times->created);
    item.modified = instant(times->modified);
    item.changed = instant(times->changed);
    item.accessed = instant(times->accessed);
  }
  return item;
}

base::Result<Item> HFSVolume::item(std::uint32_t id) const {
  const auto record = reader_->catalog().byID(id);
  if (!record) return record.error();
  return itemOf(*record);
}

base::Result<std::optional<Item>> HFSVolume::itemIn(std::uint32_t folder, std::u16string_view stored) const {
  const auto record = reader_->catalog().find(folder, stored);
  if (!record) return record.error();
  if (!*record) return std::optional<Item>();
  auto item = itemOf(**record);
  if (!item) return item.error();
  return std::optional(*item);
}

// A name that is spelled as list() has it goes before one that is merely composed in another way.
base::Result<std::optional<Item>> HFSVolume::lookup(std::uint32_t folder, std::string_view name) const {
  std::optional<CatalogRecord> plain;
  if (const auto stored = hfs::storedName(name)) {
    auto found = reader_->catalog().find(folder, *stored);
    if (!found) return found.error();
    if (*found && !reader_->isHidden(**found)) {
      const auto original = reader_->originalOf(**found);
      if (!original) return original.error();
      const auto shown = original->name ? std::nullopt : hfs::plainName(*stored);
      if (shown) plain = **std::move(found);
      if (shown == name) return itemIn(folder, *stored);
    }
  }
  const auto names = namesOf(folder);
  if (!names) return names.error();
  if (const auto stored = (*names)->stored(name)) return itemIn(folder, *stored);
  if (!plain) return std::optional<Item>();
  return itemIn(folder, plain->name);
}

base::Result<void> HFSVolume::list(std::uint32_t folder, const Visitor& visit) const {
  const auto names = namesOf(folder);
  if (!names) return names.error();
  return reader_->catalog().list(folder, [&](const CatalogRecord& record) -> base::Result<bool> {
    if (reader_->isHidden(record)) return true;
    const auto item = itemOf(record);
    if (!item) return item.error();
    const auto shown = (*names)->shown(record.name);
    const auto visited = shown ? visit(*shown, *item) : visit(hfs::composedFileName(record.name), *item);
    if (!visited) return visited.error();
    return true;
  });
}

base::Result<HFSVolume::FilePointer> HFSVolume::file(std::uint32_t id) const {
  if (auto known = files_.find(id)) return known;
  const auto found = record(id);
  if (!found) return found.error();
  auto compression = hfs::Compression::of(*reader_, *found);
  if (!compression) return compression.error();
  auto data = reader_->fork(found->id, hfs::ForkKind::data, found->data);
  if (!data) return data.error();
  std::uint64_t bytes = sizeof(File) + data->extentCount() * 2 * sizeof(std::uint64_t);
  auto file = std::make_shared<File>(File{kindOf(*found), found->data.size, *std::move(data)});
  if (*compression) {
    auto compressed = hfs::CompressedFile::open(*reader_, *found, **std::move(compression));
    if (!compressed) return compressed.error();
    file->size = compressed->size();
    bytes += compressed->bytes();
    file->compressed = *std::move(compressed);
  }
  return files_.keep(id, std::move(file), bytes);
}

base::Result<void> HFSVolume::readCompressed(std::uint32_t id, const hfs::CompressedFile& file,
                                             std::uint64_t offset, std::span<std::byte> into) const {
  while (!into.empty()) {
    const std::uint64_t number = offset / file.blockBytes();
    const std::uint64_t key = std::uint64_t{id} << 32 | number;
    auto block = blocks_.find(key);
    if (!block) {
      auto made = file.block(number);
      if (!made) return made.error();
      const std::uint64_t bytes = made->size();
      block = blocks_.keep(key, std::make_shared<std::vector<std::byte>>(*std::move(made)), bytes);
    }
    const auto part = std::span(*block).subspan(offset % file.blockBytes());
    const std::size_t bytes = std::min(part.size(), into.size());
    std::ranges::copy(part.first(bytes), into.begin());
    into = into.subspan(bytes);
    offset += bytes;
  }
  return {};
}

base::Result<std::string> HFSVolume::linkTarget(std::uint32_t id) const {
  constexpr std::uint64_t kMostBytes = 1 << 16;
  const auto link = file(id);
  if (!link) return link.error();
  const base::Error isNone{"item " + std::to_string(id) + " is no symbolic link with a target"};
  if ((*link)->kind != ItemKind::symbolicLink || (*link)->size > kMostBytes) return isNone;
  std::string target((*link)->size, '\0');
  if (auto read = reader_->read((*link)->data, 0, std::as_writable_bytes(std::span(target))); !read)
    return base::Error{"the target of item " + std::to_string(id) +
                       " cannot be read: " + read.error().message};
  target.resize(std::min(target.find('\0'), target.size()));
  if (target.empty()) return isNone;
  return target;
}

base::Result<std::size_t> HFSVolume::read(std::uint32_t id, std::uint64_t offset,
                                          std::span<std::byte> into) const {
  const auto opened = file(id);
  if (!opened) return opened.error();
  const File& file = **opened;
  if (file.kind != ItemKind::file) return base::Error{"item " + std::to_string(id) + " is not a file"};
  if (offset >= file.size) return std::size_t{0};
  const auto part =
      into.first(static_cast<std::size_t>(std::min<std::uint64_t>(into.size(), file.size - offset)));
  const auto read = file.compressed ? readCompressed(id, *file.compressed, offset, part)
                                    : reader_->read(file.data, offset, part);
  if (!read)
    return base::Error{"byte " + std::to_string(offset) + " of item " + std::to_string(id) +
                       " cannot be read: " + read.error().message};
  return part.size();
}

base::Result<std::vector<std::string>> HFSVolume::attributeNames(std::uint32_t id) const {
  const auto record = this->record(id);
  if (!record) return record.error();
  const auto compression = hfs::Compression::of(*reader_, *record);
  if (!compression) return compression.error();
  std::vector<std::string> names;
  std::unordered_set<std::string> known;
  const auto add = [&](std::string name) {
    if (known.insert(name).second) names.push_back(std::move(name));
  };
  const auto take = [&](const hfs::StoredAttribute& attribute) -> base::Result<void> {
    if (names.size() == kMostAttributes)
      return base::Error{"item " + std::to_string(id) + " has more than " + std::to_string(kMostAttributes) +
                         " attributes"};
    if (!isHidden(attribute.name, compression->has_value()))
      add(hfs::attributeName(base::utf8FromUTF16(attribute.name)));
    return {};
  };
  if (auto listed = reader_->attributes(record->id, take); !listed) return listed.error();
  if (!isAllZeros(finderInfoOf(*record))) add(std::string(kFinderInfo));
  if (record->resources.size != 0 && !*compression) add(std::string(kResourceFork));
  return names;
}

base::Result<std::optional<std::vector<std::byte>>> HFSVolume::attribute(std::uint32_t id,
                                                                         std::string_view name) const {
  using Value = std::optional<std::vector<std::byte>>;
  const auto record = this->record(id);
  if (!record) return record.error();
  const auto compression = hfs::Compression::of(*reader_, *record);
  if (!compression) return compression.error();
  Value found;
  const auto take = [&](const hfs::StoredAttribute& attribute) -> base::Result<void> {
    if (found || isHidden(attribute.name, compression->has_value()) ||
        hfs::attributeName(base::utf8FromUTF16(attribute.name)) != name)
      return {};
    auto value = reader_->valueOf(record->id, attribute);
    if (!value) return value.error();
    found = *std::move(value);
    return {};
  };
  if (auto listed = reader_->attributes(record->id, take); !listed) return listed.error();
  if (found) return found;
  if (name == kFinderInfo)
    if (auto info = finderInfoOf(*record); !isAllZeros(info)) return Value(std::move(info));
  if (name != kResourceFork || record->resources.size == 0 || *compression) return Value();
  auto resources = reader_->wholeFork(record->id, hfs::ForkKind::resource, record->resources);
  if (!resources) return resources.error();
  return Value(*std::move(resources));
}

}  // namespace

base::Result<std::unique_ptr<Volume>> Volume::open(std::unique_ptr<OpenedImage> image, Options options) {
  image->setReading({.cacheBytes = options.cacheBytes / 2, .workers = options.workers});
  const auto extent = image->hfsPlusVolume();
  if (!extent) return noVolume(*image);
  auto part = std::make_unique<block::DiskPart>(image->disk(), *extent);
  auto reader = hfs::VolumeReader::open(*part, options.cacheBytes / 4);
  if (!reader) return reader.error();
  auto volume = std::make_unique<HFSVolume>(std::move(image), std::move(part), *std::move(reader),
                                            options.cacheBytes / 8);
  if (auto read = volume->readFacts(); !read) return read.error();
  return std::unique_ptr<Volume>(std::move(volume));
}

}  // namespace image
