#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include "platform/posix/file_descriptor.h"
#include "platform/posix/hidden_attribute.h"
#include "ports/files.h"

namespace platform::posix {

// One deep enumeration. Keeps the listing of every folder on the way down, but only the innermost folders
// open: an outer one is opened again when the walk comes back to it, if it still is where it was.
class FolderWalk {
 public:
  using Visitor = std::function<bool(const ports::FileItem&)>;

  // `logicalRoot` begins the items' paths. What is referred to outlives this.
  FolderWalk(std::string logicalRoot, std::string hostRoot, const ports::ResourceKeys& keys,
             const Visitor& visit, const std::function<bool()>& stopped);

  void walk();

 private:
  struct Folder {
    FileDescriptor descriptor;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    HiddenAttribute hidden;
    std::string listing;         // for each entry its d_type, its name and a NUL
    std::size_t next = 0;        // offset in listing
    std::size_t pathLength = 0;  // of the folder's own path in path_

    bool isSame(const Folder& other) const { return device == other.device && inode == other.inode; }
  };

  static bool identify(Folder& folder);
  void enter(FileDescriptor descriptor);
  void list(Folder& folder);
  void leave();
  static bool reopen(Folder& folder, int from, const char* path);
  bool visitNext();
  bool visitEntry(unsigned char type, const char* name);

  const ports::ResourceKeys& keys_;
  const Visitor& visit_;
  const std::function<bool()>& stopped_;
  const std::string hostRoot_;
  std::string path_;  // of the item at hand
  std::size_t rootLength_ = 0;
  std::vector<Folder> folders_;  // from the root down
  std::vector<char> buffer_;
};

}  // namespace platform::posix
