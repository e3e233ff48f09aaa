#include "platform/posix/folder_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>

#include "platform/posix/system_error.h"

namespace platform::posix {

base::Result<std::optional<FolderLock>> FolderLock::tryLock(const std::string& folder) {
  FileDescriptor open(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!open) return errorFromErrno("locking \"" + folder + "\"");
  while (::flock(open.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return std::optional<FolderLock>();
    if (errno != EINTR) return errorFromErrno("locking \"" + folder + "\"");
  }
  return std::optional(FolderLock(std::move(open)));
}

// A line of /proc/locks: "1: FLOCK  ADVISORY  WRITE 123 08:01:4711 0 EOF"; a waiting process has "->" before
// its kind. The inode alone is compared, as some file systems show another device here than stat() does.
std::string folderLockHolder(const std::string& folder) {
  struct stat item {};
  if (::stat(folder.c_str(), &item) != 0) return {};
  const std::string inode = ":" + std::to_string(item.st_ino);
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, strictness, mode, process, file;
    words >> number >> kind >> strictness >> mode >> process >> file;
    if (kind != "FLOCK" || !file.ends_with(inode)) continue;
    std::string name;
    std::getline(std::ifstream("/proc/" + process + "/comm"), name);
    return name.empty() ? "" : name + " (process " + process + ")";
  }
  return {};
}

}  // namespace platform::posix
