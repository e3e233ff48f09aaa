#include "image/os/host_folder.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>

#include "image/block/zeros.h"

namespace image::os {
namespace {

constexpr std::size_t kBlock = 4096;
constexpr const char* kAccessList = "system.posix_acl_access";

base::Error reason(int code) { return {std::generic_category().message(code)}; }
base::Error lastError() { return reason(errno); }

base::Result<Made> outcome(int status) {
  if (status == 0) return Made::yes;
  if (errno == EEXIST) return Made::existsAlready;
  if (errno == EPERM || errno == ENOTSUP || errno == ENOSYS || errno == EXDEV || errno == EMLINK)
    return Made::notPossible;
  return lastError();
}

base::Result<void> writeAll(int file, std::uint64_t offset, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t put = ::pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return lastError();
    if (put == 0) return reason(EIO);
    bytes = bytes.subspan(static_cast<std::size_t>(put));
    offset += static_cast<std::uint64_t>(put);
  }
  return {};
}

bool isHole(std::span<const std::byte> bytes, std::size_t at) {
  return bytes.size() - at >= kBlock && block::allZeros(bytes.subspan(at, kBlock));
}

std::size_t endOfRun(std::span<const std::byte> bytes, std::size_t at, bool hole) {
  while (at < bytes.size() && isHole(bytes, at) == hole) at += std::min(kBlock, bytes.size() - at);
  return at;
}

ExistingItem itemOf(const struct stat& status) {
  return {.isFolder = S_ISDIR(status.st_mode), .device = status.st_dev, .number = status.st_ino};
}

// Gives an item its attributes, one kind after the other. An item that is not open is reached by its
// descriptor's place in /proc, which leads to that very item, a symbolic link too.
class Giving {
 public:
  Giving(int file, bool isOpen, const ItemAttributes& attributes)
      : file_(file), isOpen_(isOpen), attributes_(attributes) {
    if (!isOpen) path_ = "/proc/self/fd/" + std::to_string(file);
  }

  base::Result<std::vector<LeftOut>> run() {
    if (::fstat(file_, &status_) != 0) return lastError();
    giveOwner();
    for (const ReadAttribute& attribute : attributes_.extended) giveExtended(attribute);
    if (!S_ISLNK(status_.st_mode)) givePermissions();
    giveDates();
    if (failed_) return *failed_;
    return std::move(leftOut_);
  }

 private:
  void leaveOut(const std::string& what) {
    if (errno == EIO || errno == EROFS || errno == EDQUOT) failed_ = lastError();
    leftOut_.push_back({what, lastError().message});
  }

  void giveOwner() {
    if (::geteuid() != 0) return;
    if (status_.st_uid == attributes_.user && status_.st_gid == attributes_.group) return;
    // The numbers that stand for "as it is" are nobody's, but no error either: what came of it has to be
    // looked at.
    if (::fchownat(file_, "", attributes_.user, attributes_.group, AT_EMPTY_PATH) != 0 ||
        ::fstat(file_, &status_) != 0)
      return leaveOut("owner");
    if (status_.st_uid == attributes_.user && status_.st_gid == attributes_.group) return;
    errno = EINVAL;
    leaveOut("owner");
  }

  void giveExtended(const ReadAttribute& attribute) {
    const auto& [name, value] = attribute;
    const int status = isOpen_ ? ::fsetxattr(file_, name.c_str(), value.data(), value.size(), 0)
                               : ::setxattr(path_.c_str(), name.c_str(), value.data(), value.size(), 0);
    if (status == 0) return;
    if (name == kAccessList) permissions_ &= 0707;
    leaveOut(name.starts_with("system.posix_acl_") ? "access control list (" + name + ")"
                                                   : "extended attribute " + name);
  }

  void givePermissions() {
    mode_t wanted = attributes_.permissions & (permissions_ | S_ISVTX);
    if (status_.st_uid == attributes_.user) wanted |= attributes_.permissions & S_ISUID;
    if (status_.st_gid == attributes_.group) wanted |= attributes_.permissions & S_ISGID;
    if (attributes_.extended.empty() && (status_.st_mode & 07777) == wanted) return;
    if ((isOpen_ ? ::fchmod(file_, wanted) : ::chmod(path_.c_str(), wanted)) != 0) leaveOut("permissions");
  }

  void giveDates() {
    const timespec times[2]{attributes_.accessed, attributes_.modified};
    if ((isOpen_ ? ::futimens(file_, times) : ::utimensat(AT_FDCWD, path_.c_str(), times, 0)) != 0)
      leaveOut("dates");
  }

  int file_;
  bool isOpen_;
  const ItemAttributes& attributes_;
  std::string path_;
  struct stat status_ {};
  mode_t permissions_ = 0777;
  std::vector<LeftOut> leftOut_;
  std::optional<base::Error> failed_;
};

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

}  // namespace

base::Result<void> MadeItem::write(std::uint64_t offset, std::span<const std::byte> bytes) const {
  std::size_t at = 0;
  while (at < bytes.size()) {
    const std::size_t begin = endOfRun(bytes, at, true);
    at = endOfRun(bytes, begin, false);
    if (auto written = writeAll(file_.number(), offset + begin, bytes.subspan(begin, at - begin)); !written)
      return written;
  }
  return {};
}

base::Result<void> MadeItem::setSize(std::uint64_t size) const {
  if (::ftruncate(file_.number(), static_cast<off_t>(size)) != 0) return lastError();
  return {};
}

base::Result<std::vector<LeftOut>> MadeItem::give(const ItemAttributes& attributes) const {
  return Giving(file_.number(), hasData_, attributes).run();
}

base::Result<ExistingItem> MadeItem::look() const {
  struct stat status {};
  if (::fstat(file_.number(), &status) != 0) return lastError();
  return itemOf(status);
}

base::Result<std::size_t> HostFile::read(std::uint64_t offset, std::span<std::byte> into) const {
  std::size_t done = 0;
  while (done < into.size()) {
    const ssize_t got =
        ::pread(file_.number(), into.data() + done, into.size() - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return lastError();
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

base::Result<HostFolder> HostFolder::open(const std::string& path) {
  FileDescriptor folder(::open(path.c_str(), kFolderFlags));
  if (!folder) return lastError();
  return HostFolder(std::move(folder));
}

base::Result<bool> HostFolder::make(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) == 0) return true;
  if (errno == EEXIST) return false;
  return lastError();
}

base::Result<HostFolder> HostFolder::openFolder(const std::string& name) const {
  FileDescriptor folder(::openat(folder_.number(), name.c_str(), kFolderFlags | O_NOFOLLOW));
  if (!folder) return lastError();
  return HostFolder(std::move(folder));
}

base::Result<std::optional<ExistingItem>> HostFolder::look(const std::string& name) const {
  struct stat status {};
  if (::fstatat(folder_.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
    return std::optional(itemOf(status));
  if (errno == ENOENT) return std::optional<ExistingItem>();
  return lastError();
}

template <class Visit>
base::Result<void> HostFolder::forEachName(Visit visit) const {
  FileDescriptor own(::openat(folder_.number(), ".", kFolderFlags));
  const std::unique_ptr<DIR, CloseFolder> entries(own ? ::fdopendir(own.number()) : nullptr);
  if (!entries) return lastError();
  own.release();
  while (true) {
    errno = 0;
    const dirent* entry = ::readdir(entries.get());
    if (entry == nullptr && errno != 0) return lastError();
    if (entry == nullptr) return {};
    const std::string_view name = entry->d_name;
    if (name != "." && name != ".." && !visit(entry->d_name)) return {};
  }
}

base::Result<bool> HostFolder::isEmpty() const {
  bool empty = true;
  const auto seen = forEachName([&](const char*) { return empty = false; });
  if (!seen) return seen.error();
  return empty;
}

base::Result<std::vector<HostItem>> HostFolder::list() const {
  std::vector<HostItem> items;
  std::optional<base::Error> failed;
  const auto listed = forEachName([&](const char* name) {
    struct stat status {};
    if (::fstatat(folder_.number(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      // What has gone away meanwhile is not there.
      if (errno != ENOENT) failed = base::Error{std::string(name) + ": " + lastError().message};
      return !failed;
    }
    items.push_back({.name = name,
                     .mode = static_cast<std::uint16_t>(status.st_mode),
                     .user = status.st_uid,
                     .group = status.st_gid,
                     .size = static_cast<std::uint64_t>(status.st_size),
                     .device = major(status.st_rdev) << 20 | minor(status.st_rdev),
                     .modified = status.st_mtim});
    return true;
  });
  if (!listed) return listed.error();
  if (failed) return *failed;
  return items;
}

base::Result<HostFolder> HostFolder::openPath(std::string_view path) const {
  auto folder = openFolder(".");
  while (folder && !path.empty()) {
    const std::string part(path.substr(0, path.find('/')));
    path.remove_prefix(std::min(part.size() + 1, path.size()));
    folder = folder->openFolder(part);
  }
  return folder;
}

base::Result<std::string> HostFolder::linkTarget(const std::string& name) const {
  std::array<char, PATH_MAX> target;
  const ssize_t length = ::readlinkat(folder_.number(), name.c_str(), target.data(), target.size());
  if (length < 0) return lastError();
  return std::string(target.data(), static_cast<std::size_t>(length));
}

base::Result<HostFile> HostFolder::openFile(const std::string& name) const {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
  FileDescriptor file(::openat(folder_.number(), name.c_str(), kFlags | O_NOATIME));
  if (!file && errno == EPERM) file = FileDescriptor(::openat(folder_.number(), name.c_str(), kFlags));
  if (!file) return lastError();
  return HostFile(std::move(file));
}

base::Result<Made> HostFolder::makeFolder(const std::string& name) const {
  return outcome(::mkdirat(folder_.number(), name.c_str(), 0700));
}

base::Result<Made> HostFolder::makeSymbolicLink(const std::string& name, const std::string& target) const {
  return outcome(::symlinkat(target.c_str(), folder_.number(), name.c_str()));
}

base::Result<Made> HostFolder::makeSpecial(const std::string& name, std::uint16_t mode,
                                           std::uint32_t device) const {
  return outcome(::mknodat(folder_.number(), name.c_str(), (mode & S_IFMT) | 0600u,
                           makedev(device >> 20, device & 0xFFFFF)));
}

base::Result<Made> HostFolder::makeHardLink(const std::string& name, const HostFolder& folder,
                                            const std::string& existing) const {
  return outcome(::linkat(folder.folder_.number(), existing.c_str(), folder_.number(), name.c_str(), 0));
}

base::Result<std::optional<MadeItem>> HostFolder::makeFile(const std::string& name,
                                                           std::uint16_t permissions) const {
  FileDescriptor file(::openat(folder_.number(), name.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               (permissions & 0777u) | 0200u));
  if (file) return std::optional<MadeItem>(std::in_place, std::move(file), true);
  if (errno == EEXIST) return std::optional<MadeItem>();
  return lastError();
}

base::Result<MadeItem> HostFolder::openItem(const std::string& name) const {
  FileDescriptor item(::openat(folder_.number(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!item) return lastError();
  return MadeItem(std::move(item), false);
}

base::Result<MadeItem> HostFolder::self() const {
  FileDescriptor folder(::fcntl(folder_.number(), F_DUPFD_CLOEXEC, 0));
  if (!folder) return lastError();
  return MadeItem(std::move(folder), true);
}

base::Result<Made> HostFolder::rename(const std::string& from, const std::string& to, bool replaces) const {
  const int folder = folder_.number();
  if (replaces) return outcome(::renameat(folder, from.c_str(), folder, to.c_str()));
  if (::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return Made::yes;
  if (errno != EINVAL && errno != ENOSYS) return outcome(-1);
  // File systems without that flag may still have links, which do not replace either.
  const auto linked = outcome(::linkat(folder, from.c_str(), folder, to.c_str(), 0));
  if (linked && *linked == Made::yes) ::unlinkat(folder, from.c_str(), 0);
  return linked;
}

void HostFolder::remove(const std::string& name) const { ::unlinkat(folder_.number(), name.c_str(), 0); }

std::string HostFolder::unfinishedName() {
  static std::atomic<std::uint64_t> next = 0;
  return ".extract-" + std::to_string(::getpid()) + "-" + std::to_string(next++) + ".unfinished";
}

}  // namespace image::os
