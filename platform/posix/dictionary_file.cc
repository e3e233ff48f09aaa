#include "platform/posix/dictionary_file.h"

#include <span>
#include <unistd.h>
#include <utility>

#include "base/binary_property_list.h"
#include "base/result.h"
#include "base/xml_property_list.h"
#include "platform/posix/durable_file.h"

namespace platform::posix {
namespace {

using base::PropertyList;

void logAbout(const std::string& path, const std::string& what, ports::SystemLog& log) {
  log.log("[Stashwick] " + path + ": " + what);
}

base::Result<std::optional<PropertyList::Dictionary>> readDictionary(const std::string& path) {
  const auto bytes = readFile(path, kMaxDictionaryFileSize);
  if (!bytes) return bytes.error();
  if (!*bytes) return std::optional<PropertyList::Dictionary>();
  auto value = base::parsePropertyList(**bytes);
  if (!value) return value.error();
  auto* dictionary = value->as<PropertyList::Dictionary>();
  if (!dictionary) return base::Error{"a property list whose root is no dictionary"};
  return std::optional(std::move(*dictionary));
}

bool keepAsideIfDamaged(const std::string& path, ports::SystemLog& log) {
  const auto old = readDictionary(path);
  if (old) return true;
  const auto aside = keepAside(path);
  logAbout(path, old.error().message + (aside ? "; kept as " + *aside : "; " + aside.error().message), log);
  return static_cast<bool>(aside);
}

}  // namespace

std::optional<PropertyList::Dictionary> readDictionaryFile(const std::string& path, ports::SystemLog& log) {
  auto dictionary = readDictionary(path);
  if (dictionary) return std::move(*dictionary);
  logAbout(path, dictionary.error().message, log);
  return std::nullopt;
}

bool writeDictionaryFile(const PropertyList::Dictionary& dictionary, const std::string& path,
                         ports::SystemLog& log) {
  const auto target = linkTarget(path);
  if (!keepAsideIfDamaged(target, log)) return false;
  const auto text = base::writeXMLPropertyList(dictionary);
  const auto replaced = replaceFile(target, std::as_bytes(std::span(text)));
  if (!replaced && ::access(folderOf(target).c_str(), F_OK) == 0)
    logAbout(path, replaced.error().message, log);
  return static_cast<bool>(replaced);
}

}  // namespace platform::posix
