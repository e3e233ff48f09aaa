#include "image/hfs/btree_reader.h"

#include <algorithm>

namespace image::hfs {
namespace {

constexpr std::size_t kMinKeyBytes = 8;

// The first of the records that is not below what is sought.
std::size_t lowerBound(const std::vector<RecordView>& records, const BTreeReader::Probe& probe) {
  const auto isBelow = [&](const RecordView& record) { return probe(record.key) < 0; };
  return static_cast<std::size_t>(std::ranges::partition_point(records, isBelow) - records.begin());
}

}  // namespace

base::Result<BTreeReader::NodePointer> BTreeReader::load(std::uint32_t number) const {
  auto view = view_.node(number);
  if (!view) return view.error();
  auto node = std::make_shared<Node>(Node{*std::move(view), {}});
  node->records.reserve(node->view.records.size());
  for (const auto bytes : node->view.records) {
    const RecordView record = splitRecord(bytes);
    if (record.key.size() < kMinKeyBytes || record.key.size() > view_.maxKeyLength() + 2u)
      return view_.damaged("a key has a wrong length", number);
    if (!node->records.empty() && order_(node->records.back().key, record.key) >= 0)
      return view_.damaged("keys are out of order", number);
    if (node->view.kind == kIndexNode && record.data.size() < 4)
      return view_.damaged("an index record is too short", number);
    node->records.push_back(record);
  }
  return NodePointer(std::move(node));
}

base::Result<BTreeReader::NodePointer> BTreeReader::node(std::uint32_t number, unsigned height) const {
  NodePointer node = nodes_.find(number);
  if (!node) {
    auto loaded = load(number);
    if (!loaded) return loaded;
    const std::uint64_t cost =
        view_.nodeBytes() + (*loaded)->records.size() * (sizeof(RecordView) + sizeof(std::span<std::byte>));
    node = nodes_.keep(number, *std::move(loaded), cost);
  }
  if (node->view.kind != (height == 1 ? kLeafNode : kIndexNode) || node->view.height != height ||
      node->records.empty())
    return view_.damaged("a node is of the wrong kind or height, or empty", number);
  return node;
}

base::Result<BTreeReader::Place> BTreeReader::descend(const Probe& probe) const {
  Place place{.number = view_.root()};
  for (unsigned height = view_.depth(); height > 0; --height) {
    auto found = node(place.number, height);
    if (!found) return found.error();
    place.leaf = *std::move(found);
    if (height == 1) break;
    const auto& records = place.leaf->records;
    const auto isNotAbove = [&](const RecordView& record) { return probe(record.key) <= 0; };
    const auto above = std::ranges::partition_point(records, isNotAbove);
    const RecordView& way = above == records.begin() ? *above : above[-1];
    place.number = base::loadBigEndian<std::uint32_t>(way.data.data());
  }
  return place;
}

base::Result<BTreeReader::Place> BTreeReader::nextLeaf(const Place& from) const {
  Place next{.number = from.leaf->view.next};
  if (next.number == 0) return next;
  auto found = node(next.number, 1);
  if (!found) return found.error();
  next.leaf = *std::move(found);
  if (next.leaf->view.previous != from.number ||
      order_(from.leaf->records.back().key, next.leaf->records.front().key) >= 0)
    return view_.damaged("a leaf does not go on where its neighbour ends", next.number);
  return next;
}

base::Result<void> BTreeReader::scan(const Probe& probe, const Visitor& visit) const {
  auto place = descend(probe);
  if (!place) return place.error();
  std::size_t first = place->leaf ? lowerBound(place->leaf->records, probe) : 0;
  while (place->leaf) {
    for (const RecordView& record : std::span(place->leaf->records).subspan(first)) {
      const auto goesOn = visit(record);
      if (!goesOn) return goesOn.error();
      if (!*goesOn) return {};
    }
    first = 0;
    place = nextLeaf(*place);
    if (!place) return place.error();
  }
  return {};
}

base::Result<bool> BTreeReader::find(const Probe& probe,
                                     const std::function<void(const RecordView&)>& visit) const {
  auto place = descend(probe);
  if (!place) return place.error();
  if (!place->leaf) return false;
  const auto& records = place->leaf->records;
  const std::size_t at = lowerBound(records, probe);
  if (at == records.size() || probe(records[at].key) != 0) return false;
  visit(records[at]);
  return true;
}

}  // namespace image::hfs
