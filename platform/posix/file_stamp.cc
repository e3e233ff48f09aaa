#include "platform/posix/file_stamp.h"

#include <sys/stat.h>

namespace platform::posix {

FileStamp FileStamp::of(const std::string& path) {
  struct stat item {};
  if (::stat(path.c_str(), &item) != 0) return {};
  return {item.st_dev, item.st_ino, item.st_size, item.st_mtim.tv_sec, item.st_mtim.tv_nsec};
}

}  // namespace platform::posix
