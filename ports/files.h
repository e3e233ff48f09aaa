#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/date.h"

namespace ports {

// What an enumeration is asked to find out about each item. Name and kind always come.
struct ResourceKeys {
  bool isHidden = false;
  bool totalFileSize = false;
  bool creationDate = false;
  bool contentModificationDate = false;
};

struct FileItem {
  std::string_view path;  // logical: the enumerated path, "/", and the way down; valid during the visit
  std::string_view name;  // its last component
  bool isDirectory = false;
  bool isRegularFile = false;
  // A name that begins with a dot; on FAT, exFAT and NTFS also the hidden attribute where the host tells it.
  bool isHidden = false;
  std::uint64_t totalFileSize = 0;  // bytes; 0 for anything but a regular file
  base::Date creationDate;          // the modification date where the file system keeps none
  base::Date contentModificationDate;
};

// Files and folders, by logical path. Symbolic links are never followed, except that a path's own last link
// counts for fileSystemFreeSize() and as the root of enumerate(). Any thread.
class Files {
 public:
  virtual ~Files() = default;

  // The user's Application Support folder, made if it is missing.
  virtual std::string applicationSupportDirectory() = 0;

  // Whether anything is at the path.
  virtual bool fileExists(const std::string& path) = 0;

  // The size in bytes that the file system gives for the item itself; nullopt when there is none.
  virtual std::optional<std::uint64_t> fileSize(const std::string& path) = 0;

  // Bytes free on the file system that holds the path; nullopt when it cannot be told.
  virtual std::optional<std::uint64_t> fileSystemFreeSize(const std::string& path) = 0;

  // Makes the folder and those above it. True when the folder is there afterwards.
  virtual bool createDirectory(const std::string& path) = 0;

  // Visits everything below a folder, a folder before its contents, hidden items and packages included; what
  // cannot be read is passed over. Entries "." and ".." are not items. Nothing is visited when the path is no
  // folder. Ends early when the visitor returns false.
  virtual void enumerate(const std::string& path, const ResourceKeys& keys,
                         const std::function<bool(const FileItem&)>& visit) = 0;
};

}  // namespace ports
