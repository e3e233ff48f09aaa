#include "image/hfs/original.h"

#include <algorithm>
#include <limits>

#include "base/byte_order.h"
#include "image/hfs/catalog.h"

namespace image::hfs {
namespace {

enum class Tag : std::uint32_t { name = 1, times = 2, device = 3 };

void putHead(Tag tag, std::size_t bytes, base::ByteWriter& out) {
  out.put(static_cast<std::uint32_t>(tag)).put(static_cast<std::uint32_t>(bytes));
}

// The ends of the range stand for everything beyond.
bool isInRange(std::int64_t time) {
  return volumeDate(time) != 0 && volumeDate(time) != std::numeric_limits<std::uint32_t>::max();
}

bool isPlain(std::string_view name) {
  return std::ranges::all_of(name, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

std::vector<std::byte> encodeOriginal(const Original& original) {
  std::vector<std::byte> bytes;
  base::ByteWriter out(bytes);
  if (original.name) {
    putHead(Tag::name, original.name->size(), out);
    out.put(std::as_bytes(std::span(*original.name)));
  }
  if (original.times) {
    putHead(Tag::times, 4 * 8, out);
    const Times& t = *original.times;
    for (const std::int64_t time : {t.created, t.modified, t.changed, t.accessed})
      out.put(static_cast<std::uint64_t>(time));
  }
  if (original.device) {
    putHead(Tag::device, 4, out);
    out.put(*original.device);
  }
  return bytes;
}

std::optional<Original> decodeOriginal(std::span<const std::byte> bytes) {
  Original original;
  base::ByteReader in(bytes);
  while (in.ok() && in.remaining() != 0) {
    const auto tag = static_cast<Tag>(in.get<std::uint32_t>());
    const auto length = in.get<std::uint32_t>();
    base::ByteReader field(in.take(length));
    const std::size_t whole = field.remaining();
    if (tag == Tag::name) {
      const auto name = field.take(whole);
      original.name.emplace(reinterpret_cast<const char*>(name.data()), name.size());
    } else if (tag == Tag::times) {
      const auto time = [&field] { return static_cast<std::int64_t>(field.get<std::uint64_t>()); };
      original.times = {.created = time(), .modified = time(), .changed = time(), .accessed = time()};
    } else if (tag == Tag::device) {
      original.device = field.get<std::uint32_t>();
    }
    if (!field.ok()) return std::nullopt;
  }
  if (!in.ok()) return std::nullopt;
  return original;
}

Original originalOf(const Tree& tree, NodeIndex node) {
  Original original;
  const Node& item = tree.nodes()[node];
  const bool ownsName = node != kRootNode && node != tree.privateFolder() && !tree.isIndirect(node);
  if (ownsName) {
    const auto name = tree.sourceName(node);
    if (tree.isNameAltered(node) || (!isPlain(name) && composedFileName(tree.storedNameOf(node)) != name))
      original.name = name;
  }
  const Times& t = item.times;
  const bool inRange =
      isInRange(t.created) && isInRange(t.modified) && isInRange(t.changed) && isInRange(t.accessed);
  if (!inRange && !tree.isLink(node) && node != tree.privateFolder()) original.times = t;
  if (item.isDevice() && deviceMajor(item.first) > 255) original.device = item.first;
  return original;
}

}  // namespace image::hfs
