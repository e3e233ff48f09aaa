#include "platform/posix/folder_walk.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <optional>
#include <sys/sysmacros.h>
#include <utility>

namespace platform::posix {
namespace {

constexpr std::size_t kOpenFolders = 32;
constexpr std::size_t kListingBuffer = 64 * 1024;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;

base::Date dateOf(const statx_timestamp& moment) {
  return base::Date::fromUnix(static_cast<double>(moment.tv_sec) + moment.tv_nsec * 1e-9);
}

unsigned char typeOf(const struct statx& item) { return IFTODT(item.stx_mode); }

std::optional<struct statx> attributesOf(int folder, const char* name, const ports::ResourceKeys& keys) {
  struct statx item {};
  const unsigned dates = keys.creationDate              ? STATX_BTIME | STATX_MTIME
                         : keys.contentModificationDate ? STATX_MTIME
                                                        : 0u;
  const unsigned mask = STATX_TYPE | (keys.totalFileSize ? STATX_SIZE : 0u) | dates;
  if (::statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, mask, &item) != 0) return std::nullopt;
  return item;
}

bool needsAttributes(unsigned char type, const ports::ResourceKeys& keys) {
  return type == DT_UNKNOWN || keys.creationDate || keys.contentModificationDate ||
         (keys.totalFileSize && type == DT_REG);
}

}  // namespace

FolderWalk::FolderWalk(std::string logicalRoot, std::string hostRoot, const ports::ResourceKeys& keys,
                       const Visitor& visit, const std::function<bool()>& stopped)
    : keys_(keys),
      visit_(visit),
      stopped_(stopped),
      hostRoot_(std::move(hostRoot)),
      path_(std::move(logicalRoot)),
      buffer_(kListingBuffer) {
  while (path_.ends_with('/')) path_.pop_back();
  rootLength_ = path_.size();
}

void FolderWalk::walk() {
  enter(FileDescriptor(::open(hostRoot_.c_str(), kFolderFlags)));
  while (!folders_.empty()) {
    if (stopped_()) return;
    if (folders_.back().next == folders_.back().listing.size()) {
      leave();
    } else if (!visitNext()) {
      return;
    }
  }
}

bool FolderWalk::identify(Folder& folder) {
  struct statx item {};
  if (::statx(folder.descriptor.get(), "", AT_EMPTY_PATH, STATX_INO, &item) != 0) return false;
  folder.device = makedev(item.stx_dev_major, item.stx_dev_minor);
  folder.inode = item.stx_ino;
  return true;
}

void FolderWalk::enter(FileDescriptor descriptor) {
  Folder folder;
  folder.descriptor = std::move(descriptor);
  folder.pathLength = path_.size();
  if (!folder.descriptor || !identify(folder)) return;
  if (std::ranges::any_of(folders_, [&](const Folder& outer) { return outer.isSame(folder); })) return;
  if (keys_.isHidden) {
    const auto outer = folders_.empty() ? HiddenAttribute() : folders_.back().hidden;
    folder.hidden = HiddenAttribute::forFolder(folder.descriptor.get(), folder.device, outer);
  }
  list(folder);
  folders_.push_back(std::move(folder));
  if (folders_.size() > kOpenFolders) folders_[folders_.size() - 1 - kOpenFolders].descriptor.reset();
}

void FolderWalk::list(Folder& folder) {
  for (;;) {
    const auto got = ::getdents64(folder.descriptor.get(), buffer_.data(), buffer_.size());
    if (got <= 0 || stopped_()) return;
    for (std::size_t at = 0; at < static_cast<std::size_t>(got);) {
      // The record's fixed part is copied out; its name ends in a NUL within the record.
      dirent64 entry;
      std::memcpy(&entry, buffer_.data() + at, offsetof(dirent64, d_name));
      const std::string_view name(buffer_.data() + at + offsetof(dirent64, d_name));
      if (name != "." && name != "..") {
        folder.listing.push_back(static_cast<char>(entry.d_type));
        folder.listing.append(name).push_back('\0');
      }
      at += entry.d_reclen;
    }
  }
}

// The folder that is left leads back to an outer one that was closed meanwhile. An unsearchable folder does
// not, but nothing below it was entered, so its outer folder is still open.
void FolderWalk::leave() {
  Folder left = std::move(folders_.back());
  folders_.pop_back();
  while (!folders_.empty() && !folders_.back().descriptor) {
    Folder& outer = folders_.back();
    const auto path = hostRoot_ + path_.substr(rootLength_, outer.pathLength - rootLength_);
    if (reopen(outer, left.descriptor.get(), "..") || reopen(outer, AT_FDCWD, path.c_str())) return;
    folders_.pop_back();  // moved away while its contents were visited
  }
}

bool FolderWalk::reopen(Folder& folder, int from, const char* path) {
  Folder found;
  found.descriptor = FileDescriptor(::openat(from, path, kFolderFlags));
  if (!found.descriptor || !identify(found) || !found.isSame(folder)) return false;
  folder.descriptor = std::move(found.descriptor);
  return true;
}

bool FolderWalk::visitNext() {
  Folder& folder = folders_.back();
  const auto type = static_cast<unsigned char>(folder.listing[folder.next]);
  const char* name = folder.listing.data() + folder.next + 1;
  folder.next += 2 + std::strlen(name);
  path_.resize(folder.pathLength);
  path_.append("/").append(name);
  return visitEntry(type, name);
}

bool FolderWalk::visitEntry(unsigned char type, const char* name) {
  Folder& folder = folders_.back();
  const int descriptor = folder.descriptor.get();
  ports::FileItem item;
  if (needsAttributes(type, keys_)) {
    const auto attributes = attributesOf(descriptor, name, keys_);
    if (!attributes) return true;
    type = typeOf(*attributes);
    if (type == DT_REG && keys_.totalFileSize) item.totalFileSize = attributes->stx_size;
    item.contentModificationDate = dateOf(attributes->stx_mtime);
    item.creationDate =
        dateOf(attributes->stx_mask & STATX_BTIME ? attributes->stx_btime : attributes->stx_mtime);
  }
  item.path = path_;
  item.name = std::string_view(path_).substr(folder.pathLength + 1);
  item.isDirectory = type == DT_DIR;
  item.isRegularFile = type == DT_REG;
  if (keys_.isHidden) item.isHidden = name[0] == '.' || folder.hidden.isSet(descriptor, name);
  if (!visit_(item)) return false;
  if (type == DT_DIR) enter(FileDescriptor(::openat(descriptor, name, kFolderFlags | O_NOFOLLOW)));
  return true;
}

}  // namespace platform::posix
