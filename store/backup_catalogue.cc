#include "store/backup_catalogue.h"

#include <algorithm>
#include <string_view>

#include "base/format.h"
#include "store/operation.h"

namespace {

constexpr std::string_view kImageExtension = ".dmg";

// A name that is nothing but ".dmg" has no extension.
bool isImage(const ports::FileItem& item) {
  return item.isRegularFile && !item.isDirectory && item.name.size() > kImageExtension.size() &&
         item.name.ends_with(kImageExtension);
}

std::shared_ptr<ZQStashwickOperation> readManifest(ports::Archives& archives, const std::string& path) {
  const auto root = archives.unarchiveObjectWithFile(path);
  if (!root || root->className() != ZQStashwickOperation::kClassName) return nullptr;
  return ZQStashwickOperation::initWithCoder(*root);
}

std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words(1);
  for (const char c : text) {
    if (c == ' ') {
      words.emplace_back();
    } else {
      words.back() += c;
    }
  }
  return words;
}

}  // namespace

std::string BackupCatalogue::backupDirectory() const {
  return host_.files.applicationSupportDirectory() + "/Stashwick 3";
}

std::string BackupCatalogue::backupDirectoryForVolume(const std::string& volume) const {
  std::string folder = backupDirectory() + "/" + volume;
  if (!host_.files.fileExists(folder)) host_.files.createDirectory(folder);
  return folder;
}

std::uint64_t BackupCatalogue::numberOfBackupsForVolume(const std::string& volume) const {
  std::uint64_t count = 0;
  host_.files.enumerate(backupDirectoryForVolume(volume), {}, [&](const ports::FileItem& item) {
    if (isImage(item)) ++count;
    return true;
  });
  return count;
}

BackupCatalogue::Instances BackupCatalogue::backupsForVolume(const std::string& volume) const {
  Instances instances;
  const std::string folder = backupDirectoryForVolume(volume);
  host_.files.enumerate(folder, {.totalFileSize = true, .creationDate = true},
                        [&](const ports::FileItem& item) {
                          if (isImage(item)) instances.push_back(instance(volume, folder, item));
                          return true;
                        });
  std::sort(instances.begin(), instances.end(),
            [](const auto& a, const auto& b) { return a->backupDate() < b->backupDate(); });
  return instances;
}

std::shared_ptr<const ZQStashwickInstance> BackupCatalogue::instance(const std::string& volume,
                                                                     const std::string& folder,
                                                                     const ports::FileItem& image) const {
  const std::string baseName(image.name.substr(0, image.name.size() - kImageExtension.size()));
  const std::string manifestPath = base::stringWithFormat("%@/%@.manifest", {folder, baseName});
  const auto manifest = readManifest(host_.archives, manifestPath);
  const auto readFiles = [&archives = host_.archives, manifestPath]() -> ZQStashwickInstance::FileList {
    const auto operation = readManifest(archives, manifestPath);
    return operation && operation->result() ? operation->result()->files() : nullptr;
  };
  return ZQStashwickInstance::_initWithName(
      volume, folder + "/" + std::string(image.name), image.creationDate,
      static_cast<float>(image.totalFileSize), manifest && manifest->encryption().has_value(),
      manifest ? ZQStashwickInstance::FileListReader(readFiles) : nullptr);
}

std::optional<base::Date> BackupCatalogue::lastBackupDate() const {
  std::optional<base::Date> latest;
  host_.files.enumerate(
      backupDirectory(), {.contentModificationDate = true}, [&](const ports::FileItem& item) {
        if (item.isDirectory)
          latest = std::max(latest.value_or(item.contentModificationDate), item.contentModificationDate);
        return true;
      });
  return latest;
}

std::string BackupCatalogue::stringFromBackupDate(base::Date date) const {
  const auto words = wordsOf(host_.dates.shortRelativeDateAndTime(date));
  return base::stringWithFormat(host_.bundle.localizedString("%@ at %@"), {words.at(0), words.at(1)});
}
