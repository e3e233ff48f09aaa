#include <array>
#include <functional>
#include <string>
#include <unordered_map>

#include "base/binary_objects.h"
#include "base/keyed_archive.h"

namespace base {

using Reference = BinaryObjectWriter::Reference;

// A keyed archive is a property list of four entries: "$archiver" and "$version" tell the format, "$top"
// names the root, and "$objects" lists every archived object. Objects refer to each other by UID, the index
// in "$objects", of which 0 is nil. An object is a dictionary of its values and, under "$class", the UID of
// its class entry.
class KeyedArchiver {
 public:
  KeyedArchiver() : table_{objects_.addString("$null")}, nil_(objects_.addUID(0)) {}

  std::vector<std::byte> archive(const Codable& root) && {
    const Reference rootKey = key("root");
    const Reference rootUID = object(root);
    const Reference top = objects_.addDictionary({&rootKey, 1}, {&rootUID, 1});
    const std::array keys = {key("$version"), key("$archiver"), key("$top"), key("$objects")};
    const std::array values = {objects_.addInteger(100000), objects_.addString("NSKeyedArchiver"), top,
                               objects_.addArray(table_)};
    const Reference archive = objects_.addDictionary(keys, values);
    return std::move(objects_).finish(archive);
  }

  BinaryObjectWriter& objects() { return objects_; }

  // What follows answers the reference of a UID, as it stands for an object elsewhere.
  Reference nil() const { return nil_; }

  Reference string(std::string_view text) {
    const Reference uid = reserve();
    table_.back() = objects_.addString(text);
    return uid;
  }

  Reference url(const FileURL& url) {
    const std::size_t slot = table_.size();
    const Reference uid = reserve();
    const Reference text = string(url.absoluteString());
    const std::array keys = {key("NS.base"), key("NS.relative"), key("$class")};
    const std::array values = {nil(), text, classEntry("NSURL")};
    table_[slot] = objects_.addDictionary(keys, values);
    return uid;
  }

  Reference urls(std::span<const FileURL> values) {
    const std::size_t slot = table_.size();
    const Reference uid = reserve();
    std::vector<Reference> elements;
    elements.reserve(values.size());
    for (const FileURL& value : values) elements.push_back(url(value));
    const std::array keys = {key("NS.objects"), key("$class")};
    const std::array fields = {objects_.addArray(elements), classEntry("NSArray")};
    table_[slot] = objects_.addDictionary(keys, fields);
    return uid;
  }

  Reference object(const Codable& object) {
    if (const auto known = archived_.find(&object); known != archived_.end()) return known->second;
    const std::size_t slot = table_.size();
    const Reference uid = reserve();
    archived_.emplace(&object, uid);
    KeyedEncoder coder(*this);
    object.encodeWithCoder(coder);
    coder.append("$class", classEntry(object.className()));
    table_[slot] = objects_.addDictionary(coder.keys_, coder.values_);
    return uid;
  }

  Reference key(std::string_view name) {
    if (const auto known = keys_.find(name); known != keys_.end()) return known->second;
    return keys_.emplace(name, objects_.addString(name)).first->second;
  }

 private:
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  using ReferenceByName = std::unordered_map<std::string, Reference, TextHash, std::equal_to<>>;

  // A place in "$objects", to be filled.
  Reference reserve() {
    table_.push_back(0);
    return objects_.addUID(table_.size() - 1);
  }

  // The entry of a class whose only ancestor is the root class.
  Reference classEntry(std::string_view name) {
    if (const auto known = classes_.find(name); known != classes_.end()) return known->second;
    const Reference uid = reserve();
    const std::array chain = {objects_.addString(name), objects_.addString("NSObject")};
    const std::array keys = {key("$classname"), key("$classes")};
    const std::array values = {chain.front(), objects_.addArray(chain)};
    table_.back() = objects_.addDictionary(keys, values);
    return classes_.emplace(name, uid).first->second;
  }

  BinaryObjectWriter objects_;
  std::vector<Reference> table_;  // "$objects"
  Reference nil_;
  ReferenceByName keys_;
  ReferenceByName classes_;
  std::unordered_map<const Codable*, Reference> archived_;
};

void KeyedEncoder::append(std::string_view key, std::uint32_t value) {
  keys_.push_back(archive_.key(key));
  values_.push_back(value);
}

void KeyedEncoder::encodeString(std::string_view key, std::optional<std::string_view> value) {
  append(key, value ? archive_.string(*value) : archive_.nil());
}

void KeyedEncoder::encodeURL(std::string_view key, const std::optional<FileURL>& value) {
  append(key, value ? archive_.url(*value) : archive_.nil());
}

void KeyedEncoder::encodeURLs(std::string_view key, std::span<const FileURL> values) {
  append(key, archive_.urls(values));
}

void KeyedEncoder::encodeInteger(std::string_view key, std::int64_t value) {
  append(key, archive_.objects().addInteger(value));
}

void KeyedEncoder::encodeBool(std::string_view key, bool value) {
  append(key, archive_.objects().addBoolean(value));
}

void KeyedEncoder::encodeObject(std::string_view key, const Codable* object) {
  append(key, object ? archive_.object(*object) : archive_.nil());
}

std::vector<std::byte> archivedDataWithRootObject(const Codable& root) {
  return KeyedArchiver().archive(root);
}

}  // namespace base
