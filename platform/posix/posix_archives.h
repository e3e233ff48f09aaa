#pragma once

#include "platform/posix/path_map.h"
#include "ports/archives.h"
#include "ports/system_log.h"

namespace platform::posix {

// Files are written for this user only. A symbolic link to a property list is followed, also for writing.
class PosixArchives : public ports::Archives {
 public:
  // Both outlive this.
  PosixArchives(const PathMap& paths, ports::SystemLog& log) : paths_(paths), log_(log) {}

  // An unreadable file is one of more than kMaxDictionaryFileSize, too.
  std::optional<base::PropertyList::Dictionary> dictionaryWithContentsOfFile(
      const std::string& path) override;
  // What was no readable dictionary is kept as NAME.damaged, NAME.damaged-2, ...
  bool writeDictionary(const base::PropertyList::Dictionary& dictionary, const std::string& path) override;
  bool archiveRootObject(const base::Codable& root, const std::string& path) override;
  // The file stays open, and is read as it is asked for, while a decoder of it lives.
  std::optional<base::KeyedDecoder> unarchiveObjectWithFile(const std::string& path) override;

 private:
  const PathMap& paths_;
  ports::SystemLog& log_;
};

}  // namespace platform::posix
