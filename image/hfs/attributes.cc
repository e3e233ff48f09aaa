#include "image/hfs/attributes.h"

#include <algorithm>
#include <array>

#include "base/unicode.h"
#include "image/block/zeros.h"
#include "image/hfs/catalog.h"
#include "image/hfs/original.h"

namespace image::hfs {
namespace {

constexpr std::uint32_t kInlineData = 0x10;
constexpr std::uint32_t kForkData = 0x20;
// The longest value that stands in a node of 8192 bytes on the platform's own volumes.
constexpr std::size_t kMaxInlineBytes = 3802;

constexpr std::string_view kUserNamespace = "user.";
// Of the attributes that this system writes itself.
constexpr std::string_view kOwnPrefix = "stashwick.";
constexpr std::array<std::string_view, 5> kNamespaces{"user.", "system.", "security.", "trusted.", "osx."};

bool hasNamespace(std::string_view name) {
  return std::ranges::any_of(kNamespaces, [name](std::string_view space) { return name.starts_with(space); });
}

}  // namespace

std::string storedAttributeName(std::string_view name) {
  if (!name.starts_with(kUserNamespace)) return std::string(name);
  const auto bare = name.substr(kUserNamespace.size());
  return std::string(hasNamespace(bare) || bare.starts_with(kOwnPrefix) ? name : bare);
}

std::string attributeName(std::string_view storedName) {
  std::string name(hasNamespace(storedName) ? "" : kUserNamespace);
  for (const char c : storedName) {
    if (c == '\0')
      base::appendUTF8(name, 0x2400);
    else
      name += c;
  }
  return name;
}

std::vector<Attribute> attributesOf(const Tree& tree, NodeIndex node) {
  std::vector<Attribute> attributes;
  for (const auto& kept : tree.attributesOf(node)) {
    const auto value = tree.valueOf(kept);
    attributes.push_back({base::utf16FromUTF8(tree.nameOf(kept)), {value.begin(), value.end()}});
  }
  if (const Original original = originalOf(tree, node); !original.empty()) {
    attributes.push_back({std::u16string(Original::kAttributeName), encodeOriginal(original)});
  }
  std::ranges::sort(attributes, {}, &Attribute::name);
  return attributes;
}

std::uint32_t attributeCount(const Tree& tree, NodeIndex node) {
  return static_cast<std::uint32_t>(tree.attributesOf(node).size()) +
         (originalOf(tree, node).empty() ? 0 : 1);
}

AttributeRecords::AttributeRecords(const Tree& tree, std::uint32_t blockBytes)
    : tree_(tree), blockBytes_(blockBytes) {
  for (Position at = begin(); at != end(); at = next(at))
    if (const auto bytes = attributeAt(at).value.size(); bytes > kMaxInlineBytes)
      longValues_.push_back({at, bytes});
}

AttributeRecords::Position AttributeRecords::skipEmpty(Position at) const {
  while (at.major < tree_.nodes().size() && at.minor >= attributeCount(tree_, at.major))
    at = {at.major + 1, 0};
  return at;
}

Attribute AttributeRecords::attributeAt(Position at) const { return attributesOf(tree_, at.major)[at.minor]; }

void AttributeRecords::readValue(Position at, std::uint64_t offset, std::span<std::byte> into) const {
  block::copyOverlap(attributeAt(at).value, 0, into, offset);
}

RecordSource::Sizes AttributeRecords::sizes(Position at) const {
  constexpr std::size_t kKeyBytes = 2 + 2 + 4 + 4 + 2;
  constexpr std::size_t kInlineHeadBytes = 4 + 8 + 4;
  constexpr std::size_t kForkRecordBytes = 4 + 4 + 80;
  const Attribute attribute = attributeAt(at);
  const std::size_t bytes = attribute.value.size();
  return {kKeyBytes + 2 * attribute.name.size(),
          bytes > kMaxInlineBytes ? kForkRecordBytes : kInlineHeadBytes + bytes};
}

void AttributeRecords::putKey(Position at, base::ByteWriter& out) const {
  const Attribute attribute = attributeAt(at);
  out.put(static_cast<std::uint16_t>(12 + 2 * attribute.name.size())).put(std::uint16_t{0});
  out.put(tree_.catalogID(at.major))
      .put(std::uint32_t{0})
      .put(static_cast<std::uint16_t>(attribute.name.size()));
  for (const char16_t unit : attribute.name) out.put(static_cast<std::uint16_t>(unit));
}

void AttributeRecords::putData(Position at, base::ByteWriter& out) const {
  const Attribute attribute = attributeAt(at);
  if (attribute.value.size() <= kMaxInlineBytes) {
    out.put(kInlineData)
        .zeros(8)
        .put(static_cast<std::uint32_t>(attribute.value.size()))
        .put(attribute.value);
    return;
  }
  const auto place = std::ranges::find(longValues_, at, &LongValue::at);
  const auto blocks = static_cast<std::uint32_t>((place->size + blockBytes_ - 1) / blockBytes_);
  out.put(kForkData).zeros(4);
  putFork({place->size, place->firstBlock, blocks}, 0, out);
}

}  // namespace image::hfs
