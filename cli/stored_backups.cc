#include "cli/stored_backups.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <set>

#include "cli/text.h"

namespace cli {
namespace {

constexpr std::string_view kImageExtension = ".dmg";

std::string withoutExtension(const std::string& path) {
  return path.ends_with(kImageExtension) ? path.substr(0, path.size() - kImageExtension.size()) : path;
}

std::shared_ptr<ZQStashwickOperation> readManifest(ports::Archives& archives, const std::string& path) {
  const auto root = archives.unarchiveObjectWithFile(path);
  if (!root || root->className() != ZQStashwickOperation::kClassName) return nullptr;
  return ZQStashwickOperation::initWithCoder(*root);
}

std::size_t numberIn(const std::string& text) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

// "2026-11", "2026-11-21T03:47" and the like.
bool isDate(const std::string& text) {
  constexpr std::string_view kPattern = "dddd-dd-dd dd:dd:dd";
  if (text.size() < 7 || text.size() > kPattern.size()) return false;
  return std::equal(text.begin(), text.end(), kPattern.begin(), [](char c, char pattern) {
    return pattern == 'd' ? c >= '0' && c <= '9' : c == pattern;
  });
}

std::string candidatesText(const std::vector<Backup>& backups) {
  std::string text;
  for (const auto& backup : backups)
    text += "\n  " + backup.name() + "  " + localDateText(backup.instance->backupDate());
  return text;
}

}  // namespace

std::string Backup::name() const {
  return number == 0 ? path() : instance->device() + "/" + std::to_string(number);
}

std::string Backup::manifestPath() const { return withoutExtension(path()) + ".manifest"; }

bool StoredBackups::hasFolder(std::string_view volume) const {
  return !volume.empty() && volume != "." && volume != ".." && volume.find('/') == volume.npos &&
         host_.files.fileExists(folder(std::string(volume)));
}

std::vector<std::string> StoredBackups::volumes() const {
  const std::string root = catalogue_.backupDirectory();
  std::set<std::string> names;
  host_.files.enumerate(root, {}, [&](const ports::FileItem& item) {
    const auto below = item.path.substr(root.size() + 1);
    const auto slash = below.find('/');
    if (item.isRegularFile && slash != below.npos && item.name.size() > kImageExtension.size() &&
        item.name.ends_with(kImageExtension)) {
      names.emplace(below.substr(0, slash));
    }
    return true;
  });
  return {names.begin(), names.end()};
}

std::vector<Backup> StoredBackups::of(const std::string& volume) const {
  std::vector<Backup> backups;
  if (!hasFolder(volume)) return backups;
  std::set<std::string> paths;
  for (const auto& instance : catalogue_.backupsForVolume(volume)) {
    // The catalogue gives an image in a sub-folder a path at the top, where nothing need be.
    if (host_.files.fileExists(instance->path()) && paths.insert(instance->path()).second)
      backups.push_back({instance, backups.size() + 1});
  }
  return backups;
}

Expected<Backup> StoredBackups::find(const std::string& name) const {
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the Expected that is returned owns it
  if (name.ends_with(kImageExtension) && host_.files.fileExists(name)) return imageAt(name);
  const auto slash = name.find('/');
  if (slash != name.npos && hasFolder(name.substr(0, slash)))
    return findInVolume(name.substr(0, slash), name.substr(slash + 1));
  if (slash == name.npos && !of(name).empty())
    return Problem{Exit::usage, "\"" + name + "\" has several names for its backups, such as " + name +
                                    "/latest; see stashwickctl list"};
  return Problem{Exit::notFound, "there is no backup \"" + name + "\"; see stashwickctl list"};
}

Expected<Backup> StoredBackups::findInVolume(const std::string& volume, const std::string& which) const {
  const auto backups = of(volume);
  if (!backups.empty() && which == "latest") return backups.back();
  if (const auto number = numberIn(which); number > 0 && number <= backups.size()) return backups[number - 1];
  std::string date = which;
  if (date.size() > 10 && date[10] == 'T') date[10] = ' ';
  std::vector<Backup> found;
  if (isDate(date)) {
    std::ranges::copy_if(backups, std::back_inserter(found), [&](const Backup& backup) {
      return localDateText(backup.instance->backupDate()).starts_with(date);
    });
  }
  if (found.size() == 1) return found[0];
  if (found.size() > 1)
    return Problem{Exit::usage,
                   "\"" + volume + "/" + which + "\" is more than one backup:" + candidatesText(found)};
  std::string text = "\"" + volume + "\" has no backup \"" + which + "\"";
  if (!backups.empty()) text += "; it has:" + candidatesText(backups);
  return Problem{Exit::notFound, text};
}

Backup StoredBackups::imageAt(const std::string& path) const {
  namespace fs = std::filesystem;
  std::error_code none;
  const auto same = [&](const std::string& other) { return fs::equivalent(path, other, none); };
  const std::string parent = fs::absolute(path, none).parent_path().filename();
  const auto siblings = of(parent);
  if (const auto found = std::ranges::find_if(siblings, same, &Backup::path); found != siblings.end())
    return *found;
  const Backup bare{ZQStashwickInstance::_initWithName("", path, {}, 0, false, nullptr), 0};
  const auto made = manifest(bare);
  const std::string device =
      made && made->result() ? std::string(made->result()->path().lastPathComponent()) : "";
  const auto size = static_cast<float>(host_.files.fileSize(path).value_or(0));
  return {ZQStashwickInstance::_initWithName(device, path, {}, size, made && made->encryption().has_value(),
                                             nullptr),
          0};
}

std::shared_ptr<ZQStashwickOperation> StoredBackups::manifest(const Backup& backup) const {
  return readManifest(host_.archives, backup.manifestPath());
}

}  // namespace cli
