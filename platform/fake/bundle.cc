#include "platform/fake/bundle.h"

#include <utility>

namespace platform::fake {
namespace {

std::string resourcePath(std::string_view name, std::string_view type) {
  std::string path = "/Applications/Agent.app/Contents/Resources/" + std::string(name);
  if (!type.empty()) path.append(".").append(type);
  return path;
}

}  // namespace

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view type) {
  auto path = resourcePath(name, type);
  if (!files_.fileExists(path)) return std::nullopt;
  return path;
}

std::string Bundle::localizedString(std::string_view key) {
  const base::MutexLock lock(mutex_);
  const auto entry = strings_.find(key);
  return entry == strings_.end() ? std::string(key) : entry->second;
}

void Bundle::addResource(std::string_view name, std::string_view type, std::string_view contents) {
  files_.write(resourcePath(name, type), contents);
}

void Bundle::setLocalizedString(std::string key, std::string text) {
  const base::MutexLock lock(mutex_);
  strings_.insert_or_assign(std::move(key), std::move(text));
}

}  // namespace platform::fake
