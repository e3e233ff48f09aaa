#include "platform/posix/file_user_defaults.h"

#include <cstdio>
#include <utility>

#include "platform/posix/dictionary_file.h"
#include "platform/posix/durable_file.h"

namespace platform::posix {
namespace {

// As the platform reads a text as a boolean: blanks, a sign and zeros are passed over, and the next character
// decides.
bool readsTrue(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\r\v\f"), text.size()));
  if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
  const auto decisive = text.find_first_not_of('0');
  return decisive != text.npos && std::string_view("YyTt123456789").find(text[decisive]) != text.npos;
}

std::string numberText(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.16g", number);
  return text;
}

}  // namespace

void FileUserDefaults::registerDefaults(const std::optional<base::PropertyList::Dictionary>& defaults) {
  if (!defaults) return;
  base::MutexLock lock(mutex_);
  for (const auto& [key, value] : *defaults) registered_.insert_or_assign(key, value);
}

bool FileUserDefaults::boolForKey(std::string_view key) {
  base::MutexLock lock(mutex_);
  const auto* value = valueForKey(key);
  if (!value) return false;
  if (const auto* boolean = value->as<bool>()) return *boolean;
  if (const auto* integer = value->as<std::int64_t>()) return *integer != 0;
  if (const auto* real = value->as<double>()) return *real != 0;
  const auto* text = value->as<std::string>();
  return text && readsTrue(*text);
}

void FileUserDefaults::setBool(bool value, std::string_view key) {
  base::MutexLock lock(mutex_);
  readIfChanged();
  settings_.insert_or_assign(std::string(key), value);
  write();
}

void FileUserDefaults::setString(const std::optional<std::string>& value, std::string_view key) {
  base::MutexLock lock(mutex_);
  readIfChanged();
  if (value) {
    settings_.insert_or_assign(std::string(key), *value);
  } else if (settings_.erase(std::string(key)) == 0) {
    return;
  }
  write();
}

void FileUserDefaults::write() {
  makeFolders(folderOf(file_));
  if (writeDictionaryFile(settings_, file_, log_)) stamp_ = FileStamp::of(file_);
}

std::optional<std::string> FileUserDefaults::stringForKey(std::string_view key) {
  base::MutexLock lock(mutex_);
  const auto* value = valueForKey(key);
  if (!value) return std::nullopt;
  if (const auto* text = value->as<std::string>()) return *text;
  if (const auto* boolean = value->as<bool>()) return *boolean ? "1" : "0";
  if (const auto* integer = value->as<std::int64_t>()) return std::to_string(*integer);
  if (const auto* real = value->as<double>()) return numberText(*real);
  return std::nullopt;
}

// The state of the file is looked at before its contents, so that a change in between is read next time.
void FileUserDefaults::readIfChanged() {
  const auto stamp = FileStamp::of(file_);
  if (stamp == stamp_) return;
  stamp_ = stamp;
  settings_ = readDictionaryFile(file_, log_).value_or(base::PropertyList::Dictionary());
}

const base::PropertyList* FileUserDefaults::valueForKey(std::string_view key) {
  readIfChanged();
  for (const auto* layer : {&settings_, &registered_}) {
    if (const auto entry = layer->find(key); entry != layer->end()) return &entry->second;
  }
  return nullptr;
}

}  // namespace platform::posix
