#include <algorithm>

#include "base/binary_objects.h"
#include "base/keyed_archive.h"
#include "base/page_cache.h"

namespace base {
namespace {

using Kind = BinaryObject::Kind;

// Looking at one name costs about as much as reading this many bytes of text.
constexpr std::uint64_t kLookAtAName = 8;

// What one question to an archive may cost, in bytes of text. An honest archive stays far below a multiple of
// its size; one whose objects refer to the same large object again and again does not.
class Budget {
 public:
  explicit Budget(std::uint64_t archiveBytes) : left_(16 * archiveBytes + 65536) {}

  bool spend(std::uint64_t amount) {
    if (amount > left_) return false;
    left_ -= amount;
    return true;
  }

 private:
  std::uint64_t left_;
};

// How long a chain of URLs, each relative to the next, is followed.
constexpr int kMaxBaseURLs = 8;

std::string joinedURL(std::string base, std::string_view relative) {
  if (relative.starts_with('/')) return "file://" + std::string(relative);
  return base.erase(base.rfind('/') + 1).append(relative);
}

// The smallest archive of URLs spends more bytes than this on each.
constexpr std::uint64_t kLeastBytesPerURL = 24;

}  // namespace

class KeyedUnarchiver {
 public:
  using Index = std::uint64_t;  // of an object in the property list

  explicit KeyedUnarchiver(std::shared_ptr<const RandomAccess> bytes) : file_(std::move(bytes)) {}

  // The root object.
  Result<Index> open() {
    auto reader = BinaryObjectReader::open(file_);
    if (!reader) return failure(reader.error().message);
    reader_ = *reader;
    Budget budget = newBudget();
    const Index top = reader_->topObject();
    const auto archiver = member(top, "$archiver", budget);
    if (!archiver || plainString(*archiver, budget) != "NSKeyedArchiver")
      return failure("it is a property list, but no keyed archive");
    const auto objects = member(top, "$objects", budget);
    const auto table = objects ? reader_->object(*objects) : std::nullopt;
    if (!table || table->kind != Kind::array) return failure("its list of objects is missing");
    table_ = *table;
    const auto roots = member(top, "$top", budget);
    const auto root = roots ? objectMember(*roots, "root", budget) : std::nullopt;
    if (!root) return failure("its root object is missing");
    if (!isDictionary(*root)) return failure("its root is no object with keys");
    return *root;
  }

  Budget newBudget() const { return Budget(file_.size()); }

  // Whatever stands under a dictionary's key.
  std::optional<Index> member(Index dictionary, std::string_view key, Budget& budget) const {
    const auto entries = reader_->object(dictionary);
    if (!entries || entries->kind != Kind::dictionary) return std::nullopt;
    for (std::uint64_t i = 0; i < entries->count; ++i) {
      if (!budget.spend(kLookAtAName)) return std::nullopt;
      const auto name = reader_->reference(*entries, i);
      if (name && isText(*name, key)) return reader_->reference(*entries, entries->count + i);
    }
    return std::nullopt;
  }

  // The object that a key's UID stands for; nullopt when that is nil.
  std::optional<Index> objectMember(Index dictionary, std::string_view key, Budget& budget) const {
    const auto value = member(dictionary, key, budget);
    return value ? resolved(*value) : std::nullopt;
  }

  // A string of its own or the archived form of a mutable one, whose text is one key further down.
  std::optional<std::string> stringMember(Index dictionary, std::string_view key, Budget& budget) const {
    const auto value = objectMember(dictionary, key, budget);
    if (!value) return std::nullopt;
    if (!isDictionary(*value)) return plainString(*value, budget);
    const auto text = member(*value, "NS.string", budget);
    if (!text) return std::nullopt;
    return plainString(resolved(*text).value_or(*text), budget);
  }

  std::optional<std::string> plainString(Index index, Budget& budget) const {
    const auto object = reader_->object(index);
    if (!object || !budget.spend(object->count)) return std::nullopt;
    return reader_->string(*object);
  }

  // A number or truth value, which stands in its object directly or, boxed, behind a UID.
  std::int64_t number(Index dictionary, std::string_view key) const {
    Budget budget = newBudget();
    const auto value = member(dictionary, key, budget);
    const auto object = value ? reader_->object(resolved(*value).value_or(*value)) : std::nullopt;
    if (!object) return 0;
    if (object->kind == Kind::boolean) return static_cast<std::int64_t>(object->count);
    return reader_->integer(*object).value_or(0);
  }

  std::string className(Index object) const {
    Budget budget = newBudget();
    const auto entry = objectMember(object, "$class", budget);
    const auto name = entry ? member(*entry, "$classname", budget) : std::nullopt;
    return name ? plainString(*name, budget).value_or("") : "";
  }

  bool isDictionary(Index index) const {
    const auto object = reader_->object(index);
    return object && object->kind == Kind::dictionary;
  }

  std::optional<FileURL> url(Index index, Budget& budget) const {
    const auto text = urlText(index, budget, kMaxBaseURLs);
    return text ? FileURL::fromAbsoluteString(*text) : std::nullopt;
  }

  std::optional<std::vector<FileURL>> urls(Index index, Budget& budget) const {
    const auto elements =
        isKindOf(index, "NSArray", budget) ? member(index, "NS.objects", budget) : std::nullopt;
    const auto list = elements ? reader_->object(*elements) : std::nullopt;
    if (!list || list->kind != Kind::array) return std::nullopt;
    std::vector<FileURL> urls;
    urls.reserve(std::min(list->count, file_.size() / kLeastBytesPerURL));
    for (std::uint64_t i = 0; i < list->count; ++i) {
      const auto uid = reader_->reference(*list, i);
      const auto element = uid ? resolved(*uid) : std::nullopt;
      auto value = element ? url(*element, budget) : std::nullopt;
      if (!value) return std::nullopt;
      urls.push_back(std::move(*value));
    }
    return urls;
  }

 private:
  static Error failure(const std::string& reason) { return {"reading a keyed archive: " + reason}; }

  // What a UID stands for; nullopt for nil and for what is no UID.
  std::optional<Index> resolved(Index index) const {
    const auto object = reader_->object(index);
    const auto uid = object ? reader_->uid(*object) : std::nullopt;
    if (!uid || *uid == 0 || *uid >= table_.count) return std::nullopt;
    return reader_->reference(table_, *uid);
  }

  bool isText(Index index, std::string_view text) const {
    const auto object = reader_->object(index);
    const bool maybe =
        object && (object->kind == Kind::utf16 ? object->count <= text.size()
                                               : object->kind == Kind::ascii && object->count == text.size());
    return maybe && reader_->string(*object) == text;
  }

  bool isKindOf(Index object, std::string_view ancestor, Budget& budget) const {
    const auto entry = objectMember(object, "$class", budget);
    const auto chain = entry ? member(*entry, "$classes", budget) : std::nullopt;
    const auto classes = chain ? reader_->object(*chain) : std::nullopt;
    if (!classes || classes->kind != Kind::array) return false;
    for (std::uint64_t i = 0; i < classes->count && budget.spend(kLookAtAName); ++i) {
      const auto name = reader_->reference(*classes, i);
      if (name && isText(*name, ancestor)) return true;
    }
    return false;
  }

  std::optional<std::string> urlText(Index index, Budget& budget, int basesLeft) const {
    if (!isKindOf(index, "NSURL", budget)) return std::nullopt;
    auto relative = stringMember(index, "NS.relative", budget);
    if (!relative || relative->starts_with("file:")) return relative;
    const auto base = objectMember(index, "NS.base", budget);
    if (!base || basesLeft == 0) return std::nullopt;
    auto baseText = urlText(*base, budget, basesLeft - 1);
    if (!baseText || !budget.spend(baseText->size())) return std::nullopt;
    return joinedURL(std::move(*baseText), *relative);
  }

  PageCache file_;
  std::optional<BinaryObjectReader> reader_;  // there once opened
  BinaryObject table_{};                      // "$objects"
};

std::string KeyedDecoder::className() const { return archive_->className(object_); }

bool KeyedDecoder::containsValue(std::string_view key) const {
  Budget budget = archive_->newBudget();
  return archive_->member(object_, key, budget).has_value();
}

std::optional<std::string> KeyedDecoder::decodeString(std::string_view key) const {
  Budget budget = archive_->newBudget();
  return archive_->stringMember(object_, key, budget);
}

std::optional<FileURL> KeyedDecoder::decodeURL(std::string_view key) const {
  Budget budget = archive_->newBudget();
  const auto object = archive_->objectMember(object_, key, budget);
  return object ? archive_->url(*object, budget) : std::nullopt;
}

std::optional<std::vector<FileURL>> KeyedDecoder::decodeURLs(std::string_view key) const {
  Budget budget = archive_->newBudget();
  const auto object = archive_->objectMember(object_, key, budget);
  return object ? archive_->urls(*object, budget) : std::nullopt;
}

std::int64_t KeyedDecoder::decodeInteger(std::string_view key) const {
  return archive_->number(object_, key);
}

bool KeyedDecoder::decodeBool(std::string_view key) const { return archive_->number(object_, key) != 0; }

std::optional<KeyedDecoder> KeyedDecoder::decodeObject(std::string_view key) const {
  Budget budget = archive_->newBudget();
  const auto object = archive_->objectMember(object_, key, budget);
  if (!object || !archive_->isDictionary(*object)) return std::nullopt;
  return KeyedDecoder(archive_, *object);
}

Result<KeyedDecoder> unarchivedRoot(std::shared_ptr<const RandomAccess> bytes) {
  const auto archive = std::make_shared<KeyedUnarchiver>(std::move(bytes));
  const auto root = archive->open();
  if (!root) return root.error();
  return KeyedDecoder(archive, *root);
}

}  // namespace base
