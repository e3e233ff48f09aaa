#pragma once

#include <string>

#include "base/result.h"
#include "image/hfs/tree.h"
#include "image/os/file_descriptor.h"

namespace image::os {

// Finds the source's items by their nodes. Remembers the last folder, as neighbours are asked for together.
// One thread at a time.
class SourcePath {
 public:
  SourcePath(const hfs::Tree& tree, int root, const std::string& rootPath)
      : tree_(tree), root_(root), rootPath_(rootPath) {}

  // Opens every folder on the way without following symbolic links. Valid until the next call.
  base::Result<int> openFolder(hfs::NodeIndex folder);

  // For messages.
  std::string textOf(hfs::NodeIndex node) const;
  // The node whose name and place in the source a node's data has.
  hfs::NodeIndex origin(hfs::NodeIndex node) const {
    return tree_.isIndirect(node) ? tree_.nodes()[node].name : node;
  }

 private:
  base::Result<FileDescriptor> openBelow(int parent, hfs::NodeIndex folder) const;

  const hfs::Tree& tree_;
  int root_;
  const std::string& rootPath_;
  hfs::NodeIndex current_ = hfs::kNoNode;
  FileDescriptor folder_;
};

}  // namespace image::os
