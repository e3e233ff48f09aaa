#include "base/binary_property_list.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "base/binary_objects.h"
#include "base/xml_property_list.h"

namespace base {
namespace {

using Reference = BinaryObjectWriter::Reference;

// How many bytes of text and data a file may expand to by referring to them repeatedly.
constexpr std::uint64_t expandedBytes(std::uint64_t fileBytes) { return 32 * fileBytes + (1 << 20); }

// Copies objects into a tree. In a file without shared arrays and dictionaries every value has a reference of
// its own, of at least a byte: so there are never more values than the file has bytes.
class TreeReader {
 public:
  TreeReader(const BinaryObjectReader& objects, std::uint64_t fileBytes)
      : objects_(objects),
        open_(objects.objectCount()),
        valuesLeft_(fileBytes),
        bytesLeft_(expandedBytes(fileBytes)) {}

  Result<PropertyList> value(std::uint64_t index, int depth = 0) {
    const auto object = objects_.object(index);
    if (!object) return failure(index, "is damaged or of an unknown kind");
    if (valuesLeft_ == 0) return failure(index, "is referred to too often");
    --valuesLeft_;
    switch (object->kind) {
      using enum BinaryObject::Kind;
      case null:
        return failure(index, "is a null, which no property list holds");
      case set:
        return failure(index, "is a set, which is not supported");
      case boolean:
        return PropertyList(object->count != 0);
      case integer:
        return wrapped(index, objects_.integer(*object), "is an integer that does not fit 64 bits");
      case real:
        return wrapped(index, objects_.real(*object), "is a damaged real");
      case date:
        return dateValue(index, *object);
      case uid:
        return uidValue(index, *object);
      case data:
        if (!spend(object->count)) return failure(index, "is referred to too often");
        return wrapped(index, objects_.data(*object), "is damaged data");
      case ascii:
      case utf16:
        if (!spend(object->count)) return failure(index, "is referred to too often");
        return wrapped(index, objects_.string(*object), "is a damaged string");
      case array:
      case dictionary:
        return containerValue(index, *object, depth + 1);
    }
    return failure(index, "is of an unknown kind");
  }

 private:
  static Error failure(std::uint64_t index, std::string_view what) {
    return {"reading a binary property list: object " + std::to_string(index) + " " + std::string(what)};
  }

  template <class T>
  static Result<PropertyList> wrapped(std::uint64_t index, std::optional<T> value, std::string_view problem) {
    if (!value) return failure(index, problem);
    return PropertyList(std::move(*value));
  }

  bool spend(std::uint64_t bytes) {
    if (bytes > bytesLeft_) return false;
    bytesLeft_ -= bytes;
    return true;
  }

  Result<PropertyList> dateValue(std::uint64_t index, const BinaryObject& object) {
    const auto seconds = objects_.real(object);
    if (!seconds) return failure(index, "is a damaged date");
    return PropertyList(Date{*seconds});
  }

  Result<PropertyList> uidValue(std::uint64_t index, const BinaryObject& object) {
    const auto uid = objects_.uid(object);
    if (!uid) return failure(index, "is a UID that does not fit 32 bits");
    return PropertyList(PropertyList::UID{*uid});
  }

  Result<PropertyList> containerValue(std::uint64_t index, const BinaryObject& object, int depth) {
    if (open_[index]) return failure(index, "contains itself");
    if (depth > kMaxPropertyListDepth) return failure(index, "is nested too deeply");
    open_[index] = true;
    auto container = object.kind == BinaryObject::Kind::array ? arrayValue(index, object, depth)
                                                              : dictionaryValue(index, object, depth);
    open_[index] = false;
    return container;
  }

  Result<PropertyList> arrayValue(std::uint64_t index, const BinaryObject& object, int depth) {
    PropertyList::Array array;
    for (std::uint64_t i = 0; i < object.count; ++i) {
      const auto element = objects_.reference(object, i);
      if (!element) return failure(index, "refers to an object that is not there");
      auto parsed = value(*element, depth);
      if (!parsed) return parsed;
      array.push_back(std::move(*parsed));
    }
    return PropertyList(std::move(array));
  }

  Result<PropertyList> dictionaryValue(std::uint64_t index, const BinaryObject& object, int depth) {
    PropertyList::Dictionary dictionary;
    for (std::uint64_t i = 0; i < object.count; ++i) {
      const auto keyIndex = objects_.reference(object, i);
      const auto valueIndex = objects_.reference(object, object.count + i);
      if (!keyIndex || !valueIndex) return failure(index, "refers to an object that is not there");
      auto key = value(*keyIndex, depth);
      if (!key) return key;
      auto* text = key->as<std::string>();
      if (!text) return failure(index, "has a key that is no string");
      auto parsed = value(*valueIndex, depth);
      if (!parsed) return parsed;
      dictionary.insert_or_assign(std::move(*text), std::move(*parsed));
    }
    return PropertyList(std::move(dictionary));
  }

  const BinaryObjectReader& objects_;
  std::vector<bool> open_;  // containers that are being read
  std::uint64_t valuesLeft_;
  std::uint64_t bytesLeft_;
};

class TreeWriter {
 public:
  Reference add(const PropertyList& value) {
    if (const auto* boolean = value.as<bool>()) return objects_.addBoolean(*boolean);
    if (const auto* integer = value.as<std::int64_t>()) return objects_.addInteger(*integer);
    if (const auto* real = value.as<double>()) return objects_.addReal(*real);
    if (const auto* text = value.as<std::string>()) return addString(*text);
    if (const auto* date = value.as<Date>()) return objects_.addDate(date->secondsSinceReferenceDate);
    if (const auto* data = value.as<PropertyList::Data>()) return objects_.addData(*data);
    if (const auto* uid = value.as<PropertyList::UID>()) return objects_.addUID(uid->index);
    if (const auto* array = value.as<PropertyList::Array>()) return addArray(*array);
    return addDictionary(*value.as<PropertyList::Dictionary>());
  }

  std::vector<std::byte> finish(Reference top) && { return std::move(objects_).finish(top); }

 private:
  Reference addString(std::string_view text) {
    const auto known = strings_.find(text);
    if (known != strings_.end()) return known->second;
    return strings_[text] = objects_.addString(text);
  }

  Reference addArray(const PropertyList::Array& array) {
    std::vector<Reference> elements;
    elements.reserve(array.size());
    for (const PropertyList& element : array) elements.push_back(add(element));
    return objects_.addArray(elements);
  }

  Reference addDictionary(const PropertyList::Dictionary& dictionary) {
    std::vector<Reference> keys, values;
    for (const auto& [key, value] : dictionary) {
      keys.push_back(addString(key));
      values.push_back(add(value));
    }
    return objects_.addDictionary(keys, values);
  }

  BinaryObjectWriter objects_;
  std::unordered_map<std::string_view, Reference> strings_;  // views into the tree
};

}  // namespace

Result<PropertyList> parseBinaryPropertyList(std::span<const std::byte> bytes) {
  const SpanRandomAccess file(bytes);
  const auto objects = BinaryObjectReader::open(file);
  if (!objects) return objects.error();
  return TreeReader(*objects, file.size()).value(objects->topObject());
}

std::vector<std::byte> writeBinaryPropertyList(const PropertyList& value) {
  TreeWriter writer;
  const Reference top = writer.add(value);
  return std::move(writer).finish(top);
}

Result<PropertyList> parsePropertyList(std::span<const std::byte> bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return text.starts_with("bplist") ? parseBinaryPropertyList(bytes) : parseXMLPropertyList(text);
}

}  // namespace base
