#include "platform/posix/posix_archives.h"

#include "platform/posix/dictionary_file.h"
#include "platform/posix/durable_file.h"

namespace platform::posix {
namespace {

base::Result<std::optional<base::KeyedDecoder>> unarchive(const std::string& path) {
  const auto file = openFile(path);
  if (!file) return file.error();
  if (!*file) return std::optional<base::KeyedDecoder>();
  const auto root = base::unarchivedRoot(*file);
  if (!root) return root.error();
  return std::optional(*root);
}

}  // namespace

std::optional<base::PropertyList::Dictionary> PosixArchives::dictionaryWithContentsOfFile(
    const std::string& path) {
  return readDictionaryFile(paths_.hostPath(path), log_);
}

bool PosixArchives::writeDictionary(const base::PropertyList::Dictionary& dictionary,
                                    const std::string& path) {
  return writeDictionaryFile(dictionary, paths_.hostPath(path), log_);
}

bool PosixArchives::archiveRootObject(const base::Codable& root, const std::string& path) {
  const auto written = replaceFile(paths_.hostPath(path), base::archivedDataWithRootObject(root));
  if (!written) log_.log("[Stashwick] " + path + ": " + written.error().message);
  return static_cast<bool>(written);
}

std::optional<base::KeyedDecoder> PosixArchives::unarchiveObjectWithFile(const std::string& path) {
  const auto root = unarchive(paths_.hostPath(path));
  if (root) return *root;
  log_.log("[Stashwick] " + path + ": " + root.error().message);
  return std::nullopt;
}

}  // namespace platform::posix
