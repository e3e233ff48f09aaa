#include "platform/posix/posix_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "platform/posix/folder_walk.h"

namespace platform::posix {

std::string PosixFiles::applicationSupportDirectory() {
  makeFolders(applicationSupportDirectory_);
  return applicationSupportDirectory_;
}

bool PosixFiles::fileExists(const std::string& path) {
  struct stat item {};
  return ::lstat(paths_.hostPath(path).c_str(), &item) == 0;
}

std::optional<std::uint64_t> PosixFiles::fileSize(const std::string& path) {
  struct stat item {};
  if (::lstat(paths_.hostPath(path).c_str(), &item) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(item.st_size);
}

std::optional<std::uint64_t> PosixFiles::fileSystemFreeSize(const std::string& path) {
  struct statvfs fileSystem {};
  if (::statvfs(paths_.hostPath(path).c_str(), &fileSystem) != 0) return std::nullopt;
  return std::uint64_t{fileSystem.f_bavail} * fileSystem.f_frsize;
}

bool PosixFiles::createDirectory(const std::string& path) { return makeFolders(paths_.hostPath(path)); }

void PosixFiles::enumerate(const std::string& path, const ports::ResourceKeys& keys,
                           const std::function<bool(const ports::FileItem&)>& visit) {
  const std::function<bool()> stopped = [this] { return stopped_.load(); };
  FolderWalk(path, paths_.hostPath(path), keys, visit, stopped).walk();
}

}  // namespace platform::posix
