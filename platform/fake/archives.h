#pragma once

#include "base/result.h"
#include "platform/fake/files.h"
#include "ports/archives.h"
#include "ports/system_log.h"

namespace platform::fake {

// Property lists and keyed archives in the world's files.
class Archives : public ports::Archives {
 public:
  Archives(Files& files, ports::SystemLog& log) : files_(files), log_(log) {}

  std::optional<base::PropertyList::Dictionary> dictionaryWithContentsOfFile(
      const std::string& path) override;
  bool writeDictionary(const base::PropertyList::Dictionary& dictionary, const std::string& path) override;
  bool archiveRootObject(const base::Codable& root, const std::string& path) override;
  std::optional<base::KeyedDecoder> unarchiveObjectWithFile(const std::string& path) override;

 private:
  std::optional<base::Result<base::PropertyList::Dictionary>> dictionaryAt(const std::string& path) const;
  bool replaceFile(const std::string& path, std::string_view contents, bool keepsOld);

  Files& files_;
  ports::SystemLog& log_;
};

}  // namespace platform::fake
