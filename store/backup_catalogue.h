#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ports/host.h"
#include "store/instance.h"

// The backup store: a folder for each volume name below "Stashwick 3" in the user's Application Support
// folder, holding X.dmg and X.manifest for each backup X. Every query walks the folders afresh; nothing is
// cached, nothing fails: what cannot be read is passed over. Any thread.
class BackupCatalogue {
 public:
  using Instances = std::vector<std::shared_ptr<const ZQStashwickInstance>>;

  explicit BackupCatalogue(const ports::Host& host) : host_(host) {}

  // The support folder; not made.
  std::string backupDirectory() const;
  // The volume's folder, made on first use; its path even when it cannot be made, or is no folder.
  std::string backupDirectoryForVolume(const std::string& volume) const;

  // Regular files with the extension "dmg", at any depth of the volume's folder.
  std::uint64_t numberOfBackupsForVolume(const std::string& volume) const;
  // The same as records, oldest first. An image in a sub-folder is given the path, and the manifest, that it
  // would have at the top, on purpose.
  Instances backupsForVolume(const std::string& volume) const;

  // The last change inside any folder of the store.
  std::optional<base::Date> lastBackupDate() const;

  // "Today at 14:05": the first two words of the short relative text, joined by the string table. Throws
  // std::out_of_range for a text of one word, which ports::Dates never gives.
  std::string stringFromBackupDate(base::Date date) const;

 private:
  std::shared_ptr<const ZQStashwickInstance> instance(const std::string& volume, const std::string& folder,
                                                      const ports::FileItem& image) const;

  ports::Host host_;
};
