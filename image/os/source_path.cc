#include "image/os/source_path.h"

#include <cerrno>
#include <fcntl.h>
#include <ranges>
#include <vector>

#include "image/os/posix_error.h"

namespace image::os {

std::string SourcePath::textOf(hfs::NodeIndex node) const {
  std::string below;
  for (node = origin(node); node != hfs::kRootNode; node = tree_.nodes()[node].parent)
    below = "/" + std::string(tree_.sourceName(node)) + below;
  return rootPath_ + below;
}

base::Result<FileDescriptor> SourcePath::openBelow(int parent, hfs::NodeIndex folder) const {
  const std::string name(tree_.sourceName(folder));
  FileDescriptor opened(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened) return posixError("cannot open the folder", textOf(folder), errno);
  return opened;
}

base::Result<int> SourcePath::openFolder(hfs::NodeIndex folder) {
  if (folder == hfs::kRootNode) return root_;
  std::vector<hfs::NodeIndex> way;
  hfs::NodeIndex at = folder;
  for (; at != hfs::kRootNode && at != current_; at = tree_.nodes()[at].parent) way.push_back(at);
  FileDescriptor opened = at == hfs::kRootNode ? FileDescriptor() : std::move(folder_);
  current_ = hfs::kNoNode;
  for (const hfs::NodeIndex step : way | std::views::reverse) {
    auto next = openBelow(opened ? opened.number() : root_, step);
    if (!next) return next.error();
    opened = std::move(*next);
  }
  folder_ = std::move(opened);
  current_ = folder;
  return folder_.number();
}

}  // namespace image::os
