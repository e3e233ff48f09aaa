#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli/outcome.h"
#include "ports/host.h"
#include "store/backup_catalogue.h"
#include "store/operation.h"

namespace cli {

// A stored backup under the name that the user knows it by.
struct Backup {
  std::shared_ptr<const ZQStashwickInstance> instance;
  std::size_t number = 0;  // among its volume's, 1 is the oldest; 0 for an image outside the store

  const std::string& path() const { return instance->path(); }
  // "STICK/3", or the path.
  std::string name() const;
  std::string manifestPath() const;
};

// The backups in the store by volume and number or date, and images anywhere by path. Reads only.
class StoredBackups {
 public:
  explicit StoredBackups(const ports::Host& host) : host_(host), catalogue_(host) {}

  // Names of the volumes that have a backup, sorted.
  std::vector<std::string> volumes() const;
  // A volume's backups, oldest first; none of a volume that the store does not know.
  std::vector<Backup> of(const std::string& volume) const;
  std::string root() const { return catalogue_.backupDirectory(); }
  std::string folder(const std::string& volume) const { return root() + "/" + volume; }

  // "STICK/3", "STICK/latest", "STICK/2026-11-21" or a longer beginning of a date and time, or an image's
  // path.
  Expected<Backup> find(const std::string& name) const;

  // The record that the backup was made by; null when there is no manifest.
  std::shared_ptr<ZQStashwickOperation> manifest(const Backup& backup) const;

 private:
  bool hasFolder(std::string_view volume) const;
  Expected<Backup> findInVolume(const std::string& volume, const std::string& which) const;
  Backup imageAt(const std::string& path) const;

  ports::Host host_;
  BackupCatalogue catalogue_;
};

}  // namespace cli
