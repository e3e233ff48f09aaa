#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "image/hfs/tree.h"
#include "image/hfs/volume.h"
#include "image/os/file_descriptor.h"

namespace image::os {

struct ScanOptions {
  // What the volume is called: the name of the tree's root.
  std::string volumeName;
  // Looked at once for each folder; null: never cancelled.
  const std::atomic<bool>* cancelled = nullptr;
};

struct Scan {
  hfs::Tree tree;
  // What the image will not have, each with the reason.
  std::vector<std::string> leftOut;
};

// A folder that an image is made of, held open from the scan to the last read.
class SourceFolder {
 public:
  // A path that is a symbolic link is followed; links below it are not.
  static base::Result<SourceFolder> open(const std::string& path);

  // Everything below the folder, folders before what is in them, each folder's items in the order that the
  // file system lists them. The tree is not finished. The first thing that cannot be read is an Error.
  base::Result<Scan> scan(const ScanOptions& options) const;

  // The data of the scanned tree's nodes. A file that is not what was scanned (gone, other size or dates) is
  // an Error of its reader. Folder and tree outlive the source.
  std::unique_ptr<hfs::ForkSource> forks(const hfs::Tree& tree) const;

 private:
  SourceFolder(FileDescriptor root, std::string path) : root_(std::move(root)), path_(std::move(path)) {}

  FileDescriptor root_;
  std::string path_;
};

}  // namespace image::os
