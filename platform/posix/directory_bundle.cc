#include "platform/posix/directory_bundle.h"

#include <array>
#include <unistd.h>
#include <utility>

#include "platform/posix/dictionary_file.h"
#include "platform/posix/durable_file.h"

namespace platform::posix {
namespace {

// A tag, the script that its region writes, and each shorter tag.
std::vector<std::string> tableNames(std::string tag) {
  static constexpr std::array<std::pair<std::string_view, const char*>, 6> kScripts = {
      {{"zh", "zh-Hans"},
       {"zh-CN", "zh-Hans"},
       {"zh-SG", "zh-Hans"},
       {"zh-TW", "zh-Hant"},
       {"zh-HK", "zh-Hant"},
       {"zh-MO", "zh-Hant"}}};
  std::vector<std::string> names{tag};
  for (const auto& [region, script] : kScripts) {
    if (tag == region) names.emplace_back(script);
  }
  for (auto end = tag.rfind('-'); end != tag.npos; end = tag.rfind('-')) {
    tag.resize(end);
    names.push_back(tag);
  }
  return names;
}

}  // namespace

std::string DirectoryBundle::defaultFolder() {
  return folderOf(folderOf(linkTarget("/proc/self/exe"))) + "/share/stashwick";
}

std::optional<std::string> DirectoryBundle::pathForResource(std::string_view name, std::string_view type) {
  auto path = folder_ + "/" + std::string(name);
  if (!type.empty()) path.append(".").append(type);
  if (::access(path.c_str(), F_OK) != 0) return std::nullopt;
  return path;
}

std::string DirectoryBundle::localizedString(std::string_view key) {
  base::MutexLock lock(mutex_);
  if (!table_) table_ = readTable();
  const auto* text = base::find<std::string>(*table_, key);
  return text ? *text : std::string(key);
}

base::PropertyList::Dictionary DirectoryBundle::readTable() const {
  std::vector<std::string> names;
  for (const auto& language : preferredLanguages_) {
    for (auto& name : tableNames(language)) names.push_back(std::move(name));
  }
  names.emplace_back("en");
  for (const auto& name : names) {
    if (auto table = readDictionaryFile(folder_ + "/" + name + ".lproj/Localizable.strings", log_))
      return *table;
  }
  return {};
}

}  // namespace platform::posix
