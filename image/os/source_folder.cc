#include "image/os/source_folder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unordered_map>

#include "image/hfs/attributes.h"
#include "image/os/attribute_reader.h"
#include "image/os/medium.h"
#include "image/os/posix_error.h"
#include "image/os/source_path.h"

namespace image::os {
namespace {

constexpr std::int64_t kNanosecondsInSecond = 1'000'000'000;

// Held within what 64 bits of nanoseconds can say.
std::int64_t nanoseconds(const statx_timestamp& time) {
  constexpr std::int64_t kMostSeconds = INT64_MAX / kNanosecondsInSecond - 1;
  return std::clamp<std::int64_t>(time.tv_sec, -kMostSeconds, kMostSeconds) * kNanosecondsInSecond +
         time.tv_nsec;
}

hfs::Times timesOf(const struct statx& status) {
  hfs::Times times{.modified = nanoseconds(status.stx_mtime),
                   .changed = nanoseconds(status.stx_ctime),
                   .accessed = nanoseconds(status.stx_atime)};
  times.created = (status.stx_mask & STATX_BTIME) != 0 ? nanoseconds(status.stx_btime) : times.modified;
  return times;
}

hfs::Item itemOf(std::string_view name, const struct statx& status) {
  return {.name = name,
          .mode = status.stx_mode,
          .owner = status.stx_uid,
          .group = status.stx_gid,
          .size = S_ISREG(status.stx_mode) ? status.stx_size : 0,
          .device = status.stx_rdev_major << 20 | status.stx_rdev_minor,
          .times = timesOf(status)};
}

constexpr unsigned kStatusMask = STATX_BASIC_STATS | STATX_BTIME;

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

// The target's length; a link's own size is 0 on some file systems.
base::Result<std::uint64_t> linkLength(int folder, const char* name, const std::string& path) {
  char target[PATH_MAX];
  const ssize_t length = ::readlinkat(folder, name, target, sizeof target);
  if (length < 0) return posixError("cannot read the symbolic link", path, errno);
  return static_cast<std::uint64_t>(length);
}

struct FileIdentity {
  std::uint64_t device;
  std::uint64_t number;
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};
FileIdentity identityOf(const struct statx& status) {
  return {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
}
struct HashIdentity {
  std::size_t operator()(const FileIdentity& id) const {
    return id.number * 0x9E3779B97F4A7C15ull ^ id.device;
  }
};

// Walks the source folder by folder and grows the tree.
class Scanner {
 public:
  Scanner(int root, const std::string& rootPath, const struct statx& status, const ScanOptions& options)
      : scan_{.tree = hfs::Tree(itemOf(options.volumeName, status)), .leftOut = {}},
        path_(scan_.tree, root, rootPath),
        root_(root),
        options_(options),
        folders_{{hfs::kRootNode, identityOf(status)}} {}

  base::Result<Scan> run() {
    attributes_.enter(root_);
    auto ofRoot = attributes_.of(".");
    hasAttributes_ = attributes_.areSupported();
    if (auto added = addAttributes(hfs::kRootNode, ofRoot, [this] { return path_.textOf(hfs::kRootNode); });
        !added)
      return added.error();
    for (hfs::NodeIndex node = 0; node < scan_.tree.nodes().size(); ++node) {
      if (!scan_.tree.nodes()[node].isFolder() || mountPoints_.contains(node)) continue;
      if (options_.cancelled != nullptr && *options_.cancelled) return base::Error{"it was interrupted"};
      if (auto listed = list(node); !listed && !leaveOut(listed.error())) return listed.error();
    }
    return std::move(scan_);
  }

 private:
  bool leaveOut(const base::Error& reason) {
    if (options_.skipsUnreadable) scan_.leftOut.push_back(reason.message);
    return options_.skipsUnreadable;
  }

  base::Result<void> list(hfs::NodeIndex folder) {
    auto opened = path_.openFolder(folder);
    if (!opened) return opened.error();
    FileDescriptor own(::openat(*opened, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, CloseFolder> entries(own ? ::fdopendir(own.number()) : nullptr);
    if (!entries) return posixError("cannot list the folder", path_.textOf(folder), errno);
    own.release();
    attributes_.enter(*opened);
    while (true) {
      errno = 0;
      const dirent* entry = ::readdir(entries.get());
      if (entry == nullptr) break;
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      const auto added = addEntry(folder, *opened, entry->d_name);
      if (!added && !leaveOut(added.error())) return added;
    }
    if (errno != 0) return posixError("cannot list the folder", path_.textOf(folder), errno);
    return {};
  }

  base::Result<void> addEntry(hfs::NodeIndex folder, int opened, const char* name) {
    const auto text = [&] { return path_.textOf(folder) + "/" + name; };
    if (!options_.unreadable.empty() && options_.unreadable.contains(text())) return {};
    struct statx status {};
    if (::statx(opened, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, kStatusMask, &status) != 0)
      return posixError("cannot look at", text(), errno);
    // Otherwise found out when its turn to be read comes; there is no need to ask about every file.
    if (options_.skipsUnreadable && S_ISREG(status.stx_mode) &&
        ::faccessat(opened, name, R_OK, AT_EACCESS) != 0)
      return posixError("cannot read", text(), errno);
    auto item = itemOf(name, status);
    if (S_ISLNK(status.stx_mode)) {
      auto length = linkLength(opened, name, text());
      if (!length) return length.error();
      item.size = *length;
    }
    if (S_ISDIR(status.stx_mode))
      if (auto apart = checkNotInItself(folder, identityOf(status), text); !apart) return apart;
    auto added = addItem(folder, item, status);
    if (!added) return base::Error{"cannot store " + text() + ": " + added.error().message};
    if (S_ISDIR(status.stx_mode)) folders_.emplace_back(*added, identityOf(status));
    if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 && S_ISDIR(status.stx_mode)) {
      mountPoints_.insert(*added);
      scan_.leftOut.push_back(text() + ": another volume is mounted there");
      return {};
    }
    return hasAttributes_ ? addAttributes(*added, attributes_.of(name), text) : base::Result<void>();
  }

  // A folder that is one of those it lies in would have no end: a mount that does not show as one, or a
  // damaged file system.
  base::Result<void> checkNotInItself(hfs::NodeIndex parent, const FileIdentity& id,
                                      const std::function<std::string()>& text) const {
    for (hfs::NodeIndex at = parent;; at = scan_.tree.nodes()[at].parent) {
      if (std::ranges::lower_bound(folders_, at, {}, &Folder::first)->second == id)
        return base::Error{"cannot store " + text() + ": the folder is the same as " + path_.textOf(at) +
                           ", which it lies in"};
      if (at == hfs::kRootNode) return {};
    }
  }

  base::Result<void> addAttributes(hfs::NodeIndex node,
                                   const base::Result<std::vector<ReadAttribute>>& attributes,
                                   const std::function<std::string()>& text) {
    if (!attributes)
      return base::Error{"cannot read the extended attributes of " + text() + ": " +
                         attributes.error().message};
    for (const ReadAttribute& attribute : *attributes) {
      const auto added =
          scan_.tree.addAttribute(node, hfs::storedAttributeName(attribute.name), attribute.value);
      if (!added) scan_.leftOut.push_back(text() + ": " + added.error().message);
    }
    return {};
  }

  base::Result<hfs::NodeIndex> addItem(hfs::NodeIndex folder, const hfs::Item& item,
                                       const struct statx& status) {
    if (!S_ISREG(status.stx_mode) || status.stx_nlink < 2) return scan_.tree.add(folder, item);
    const FileIdentity id = identityOf(status);
    if (const auto known = linked_.find(id); known != linked_.end())
      return scan_.tree.addLink(folder, item.name, known->second);
    auto added = scan_.tree.add(folder, item);
    if (added) linked_.emplace(id, *added);
    return added;
  }

  using Folder = std::pair<hfs::NodeIndex, FileIdentity>;

  Scan scan_;
  SourcePath path_;
  int root_;
  const ScanOptions& options_;
  AttributeReader attributes_;
  // File systems of most sticks have none, and need not be asked about each file.
  bool hasAttributes_ = false;
  std::set<hfs::NodeIndex> mountPoints_;
  // All folders in the tree, by their nodes.
  std::vector<Folder> folders_;
  // Files with several names, by the first that was found.
  std::unordered_map<FileIdentity, hfs::NodeIndex, HashIdentity> linked_;
};

}  // namespace

class SourceForks::Reader : public hfs::ForkReader {
 public:
  explicit Reader(const SourceForks& source)
      : source_(source), tree_(source.tree_), path_(source.tree_, source.root_, source.rootPath_) {}

  base::Result<block::Filled> read(hfs::NodeIndex node, std::uint64_t offset,
                                   std::span<std::byte> into) override {
    auto filled = readNow(node, offset, into);
    if (filled || source_.changed_ || !source_.skipsUnreadable_) return filled;
    const base::MutexLock lock(source_.mutex_);
    source_.unreadable_.emplace(path_.textOf(node), filled.error().message);
    return block::Filled::zeros;
  }

 private:
  base::Result<block::Filled> readNow(hfs::NodeIndex node, std::uint64_t offset, std::span<std::byte> into) {
    if (tree_.nodes()[node].isSymbolicLink()) return readLink(node, offset, into);
    if (node != openNode_)
      if (auto opened = openFile(node); !opened) return opened.error();
    if (isSparse_) {
      const off_t data = ::lseek(file_.number(), static_cast<off_t>(offset), SEEK_DATA);
      const bool hole = data < 0 ? errno == ENXIO : static_cast<std::uint64_t>(data) >= offset + into.size();
      if (hole) {
        if (auto same = checkUnchanged(node); !same) return same.error();
        return block::Filled::zeros;
      }
    }
    if (auto done = readAll(node, offset, into); !done) return done.error();
    if (auto same = checkUnchanged(node); !same) return same.error();
    return block::Filled::data;
  }

  base::Error changed(hfs::NodeIndex node) const {
    source_.changed_ = true;
    return {"cannot read " + path_.textOf(node) + ": it changed while it was being read"};
  }

  base::Result<void> openFile(hfs::NodeIndex node) {
    openNode_ = hfs::kNoNode;
    const hfs::NodeIndex origin = path_.origin(node);
    auto folder = path_.openFolder(tree_.nodes()[origin].parent);
    if (!folder) return folder.error();
    const std::string name(tree_.sourceName(origin));
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    // Only the owner may leave the access date alone.
    FileDescriptor opened(::openat(*folder, name.c_str(), kFlags | O_NOATIME));
    if (!opened && errno == EPERM) opened = FileDescriptor(::openat(*folder, name.c_str(), kFlags));
    if (!opened) return posixError("cannot read", path_.textOf(node), errno);
    file_ = std::move(opened);
    if (auto same = checkUnchanged(node); !same) return same;
    openNode_ = node;
    return {};
  }

  base::Result<void> checkUnchanged(hfs::NodeIndex node) {
    struct statx status {};
    if (::statx(file_.number(), "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) != 0)
      return posixError("cannot look at", path_.textOf(node), errno);
    const hfs::Node& scanned = tree_.nodes()[node];
    if (!S_ISREG(status.stx_mode) || status.stx_size != scanned.size ||
        nanoseconds(status.stx_mtime) != scanned.times.modified)
      return changed(node);
    isSparse_ = status.stx_blocks * 512 < scanned.size;
    return {};
  }

  base::Result<void> readAll(hfs::NodeIndex node, std::uint64_t offset, std::span<std::byte> into) {
    while (!into.empty()) {
      const ssize_t got = ::pread(file_.number(), into.data(), into.size(), static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return posixError("cannot read", path_.textOf(node), errno);
      if (got == 0) return changed(node);
      into = into.subspan(static_cast<std::size_t>(got));
      offset += static_cast<std::uint64_t>(got);
    }
    return {};
  }

  base::Result<block::Filled> readLink(hfs::NodeIndex node, std::uint64_t offset, std::span<std::byte> into) {
    auto folder = path_.openFolder(tree_.nodes()[node].parent);
    if (!folder) return folder.error();
    const std::string name(tree_.sourceName(node));
    std::array<std::byte, PATH_MAX> target;
    const ssize_t length =
        ::readlinkat(*folder, name.c_str(), reinterpret_cast<char*>(target.data()), target.size());
    if (length < 0) return posixError("cannot read the symbolic link", path_.textOf(node), errno);
    if (static_cast<std::uint64_t>(length) != tree_.nodes()[node].size) return changed(node);
    std::ranges::copy(std::span(target).subspan(offset, into.size()), into.begin());
    return block::Filled::data;
  }

  const SourceForks& source_;
  const hfs::Tree& tree_;
  SourcePath path_;
  hfs::NodeIndex openNode_ = hfs::kNoNode;
  FileDescriptor file_;
  bool isSparse_ = false;
};

std::unique_ptr<hfs::ForkReader> SourceForks::openReader() const { return std::make_unique<Reader>(*this); }

std::map<std::string, std::string> SourceForks::unreadable() const {
  const base::MutexLock lock(mutex_);
  return unreadable_;
}

base::Result<SourceFolder> SourceFolder::open(const std::string& path) {
  FileDescriptor root(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) return posixError("cannot open the folder", path, errno);
  return SourceFolder(std::move(root), path);
}

base::Result<Scan> SourceFolder::scan(const ScanOptions& options) const {
  struct statx status {};
  if (::statx(root_.number(), "", AT_EMPTY_PATH, kStatusMask, &status) != 0)
    return posixError("cannot look at", path_, errno);
  // In a thread of its own, whose working directory nobody else needs.
  return std::async(std::launch::async, [&] { return Scanner(root_.number(), path_, status, options).run(); })
      .get();
}

base::Result<void> SourceFolder::requireMedium() const {
  struct stat status {};
  if (::fstat(root_.number(), &status) != 0) return posixError("cannot look at", path_, errno);
  if (!isMediumAttached(status.st_dev)) return posixError("cannot read", path_, ENODEV);
  return {};
}

}  // namespace image::os
