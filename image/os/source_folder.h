#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/mutex.h"
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
  // Leaves out what cannot be read and says so, instead of giving up.
  bool skipsUnreadable = false;
  // Paths (the source's own in front) to leave out, as they turned out unreadable before.
  std::set<std::string> unreadable{};
};

struct Scan {
  hfs::Tree tree;
  // What the image will not have, each with the reason.
  std::vector<std::string> leftOut;
};

// The data of a scanned tree's nodes. A file that is not what was scanned (gone, other size or dates) is an
// Error of its reader. Any number of threads may have readers.
class SourceForks : public hfs::ForkSource {
 public:
  // All outlive the forks.
  SourceForks(const hfs::Tree& tree, int root, const std::string& rootPath, bool skipsUnreadable)
      : tree_(tree), root_(root), rootPath_(rootPath), skipsUnreadable_(skipsUnreadable) {}

  std::unique_ptr<hfs::ForkReader> openReader() const override;

  // Whether a reader met something that was not as it had been scanned.
  bool hasChanged() const { return changed_; }
  // What could not be read, by path, with the reason; where that is skipped, readers give zeros for it.
  std::map<std::string, std::string> unreadable() const;

 private:
  class Reader;

  const hfs::Tree& tree_;
  int root_;
  const std::string& rootPath_;
  bool skipsUnreadable_;
  mutable std::atomic<bool> changed_ = false;
  mutable base::Mutex mutex_;
  mutable std::map<std::string, std::string> unreadable_ GUARDED_BY(mutex_);
};

// A folder that an image is made of, held open from the scan to the last read.
class SourceFolder {
 public:
  // A path that is a symbolic link is followed; links below it are not.
  static base::Result<SourceFolder> open(const std::string& path);

  // Everything below the folder, folders before what is in them, each folder's items in the order that the
  // file system lists them. The tree is not finished. The first thing that cannot be read is an Error.
  base::Result<Scan> scan(const ScanOptions& options) const;

  // Fails when the folder's medium was pulled out: what a scan found may then be less than what was there.
  base::Result<void> requireMedium() const;

  // Folder and tree outlive the forks.
  std::unique_ptr<SourceForks> forks(const hfs::Tree& tree, bool skipsUnreadable) const {
    return std::make_unique<SourceForks>(tree, root_.number(), path_, skipsUnreadable);
  }

 private:
  SourceFolder(FileDescriptor root, std::string path) : root_(std::move(root)), path_(std::move(path)) {}

  FileDescriptor root_;
  std::string path_;
};

}  // namespace image::os
