#include "image/fuse/volume_server.h"

#define FUSE_USE_VERSION 312

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fuse3/fuse_lowlevel.h>
#include <poll.h>
#include <span>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>

#include "image/fuse/mount_table.h"
#include "image/fuse/read_ahead.h"

namespace image::fuse {

// What answers are made of.
struct Served {
  const Volume& volume;
  ReadAhead ahead;
};

namespace {

// Seconds. Nothing changes while it is mounted.
constexpr double kForEver = 86400.0 * 365;
// What HFS+ holds: 255 UTF-16 units, of three UTF-8 bytes at most.
constexpr unsigned long kLongestName = 765;

constexpr std::array kEndingSignals{SIGHUP, SIGINT, SIGTERM};

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kEndingSignals) sigaddset(&signals, signal);
  return signals;
}

Served& servedOf(fuse_req_t request) { return *static_cast<Served*>(fuse_req_userdata(request)); }
const Volume& volumeOf(fuse_req_t request) { return servedOf(request).volume; }

// The kernel calls the root 1; every other inode is the volume's own number.
std::uint32_t itemID(const Volume& volume, fuse_ino_t inode) {
  return inode == FUSE_ROOT_ID ? volume.rootID() : static_cast<std::uint32_t>(inode);
}

mode_t typeOf(ItemKind kind) {
  switch (kind) {
    case ItemKind::folder:
      return S_IFDIR;
    case ItemKind::file:
      return S_IFREG;
    case ItemKind::symbolicLink:
      return S_IFLNK;
    case ItemKind::fifo:
      return S_IFIFO;
    case ItemKind::socket:
      return S_IFSOCK;
    case ItemKind::characterDevice:
      return S_IFCHR;
    case ItemKind::blockDevice:
      return S_IFBLK;
  }
  return S_IFREG;
}

timespec timeOf(const Instant& instant) {
  return {.tv_sec = instant.seconds, .tv_nsec = static_cast<long>(instant.nanoseconds)};
}

struct stat attributesOf(const Item& item) {
  struct stat attributes {};
  attributes.st_ino = item.id;
  attributes.st_mode = typeOf(item.kind) | (item.permissions & 07777);
  attributes.st_nlink = item.links;
  attributes.st_uid = item.user;
  attributes.st_gid = item.group;
  attributes.st_rdev = makedev(item.device >> 20, item.device & 0xFFFFF);
  attributes.st_size = static_cast<off_t>(item.size);
  attributes.st_blocks = static_cast<blkcnt_t>((item.storedSize + 511) / 512);
  attributes.st_atim = timeOf(item.accessed);
  attributes.st_mtim = timeOf(item.modified);
  attributes.st_ctim = timeOf(item.changed);
  return attributes;
}

fuse_entry_param entryOf(const Item& item) {
  fuse_entry_param entry{};
  entry.ino = item.id;
  entry.attr = attributesOf(item);
  entry.attr_timeout = kForEver;
  entry.entry_timeout = kForEver;
  return entry;
}

// The reader learns no more than EIO; the log says why.
void refuse(fuse_req_t request, const base::Error& error) {
  ::syslog(LOG_ERR, "%s", error.message.c_str());
  fuse_reply_err(request, EIO);
}

void start(void*, fuse_conn_info* connection) {
  connection->want |=
      connection->capable & (FUSE_CAP_READDIRPLUS | FUSE_CAP_ASYNC_READ | FUSE_CAP_CACHE_SYMLINKS |
                             FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_NO_OPEN_SUPPORT);
  // Who lists a folder mostly wants to know the items as well; the guess of the kernel is worse.
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS_AUTO);
}

void lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  const Volume& volume = volumeOf(request);
  const auto item = volume.lookup(itemID(volume, folder), name);
  if (!item) return refuse(request, item.error());
  fuse_entry_param entry{};
  entry.entry_timeout = kForEver;
  if (*item) entry = entryOf(**item);
  fuse_reply_entry(request, &entry);
}

void getAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
  const Volume& volume = volumeOf(request);
  const auto item = volume.item(itemID(volume, inode));
  if (!item) return refuse(request, item.error());
  const struct stat attributes = attributesOf(*item);
  fuse_reply_attr(request, &attributes, kForEver);
}

void readLink(fuse_req_t request, fuse_ino_t inode) {
  const auto target = volumeOf(request).linkTarget(static_cast<std::uint32_t>(inode));
  if (!target) return refuse(request, target.error());
  fuse_reply_readlink(request, target->c_str());
}

// Between opening and closing, so that a place in it stays one however it is read.
class Listing {
 public:
  static base::Result<std::unique_ptr<Listing>> of(const Volume& volume, std::uint32_t folder) {
    const auto self = volume.item(folder);
    if (!self) return self.error();
    auto listing = std::make_unique<Listing>();
    listing->add(".", *self);
    listing->add("..", *self);
    const auto listed = volume.list(folder, [&](std::string_view name, const Item& item) {
      listing->add(name, item);
      return base::Result<void>();
    });
    if (!listed) return listed.error();
    return listing;
  }

  std::size_t size() const { return entries_.size(); }
  const char* name(std::size_t i) const { return names_.data() + entries_[i].name; }
  const Item& item(std::size_t i) const { return entries_[i].item; }

  std::vector<std::uint32_t> smallFiles() const {
    std::vector<std::uint32_t> files;
    for (const auto& [name, item] : entries_)
      if (item.kind == ItemKind::file && item.size != 0 && item.size <= ReadAhead::kMostBytes)
        files.push_back(item.id);
    return files;
  }

 private:
  struct Entry {
    std::size_t name;
    Item item;
  };

  void add(std::string_view name, const Item& item) {
    entries_.push_back({names_.size(), item});
    names_.append(name).push_back('\0');
  }

  std::string names_;
  std::vector<Entry> entries_;
};

Listing* listingOf(const fuse_file_info* open) {
  // The kernel keeps it as a number. NOLINTNEXTLINE(performance-no-int-to-ptr)
  return reinterpret_cast<Listing*>(static_cast<std::uintptr_t>(open->fh));
}

void openFolder(fuse_req_t request, fuse_ino_t inode, fuse_file_info* open) {
  const Volume& volume = volumeOf(request);
  auto listing = Listing::of(volume, itemID(volume, inode));
  if (!listing) return refuse(request, listing.error());
  servedOf(request).ahead.wasListed((*listing)->smallFiles());
  open->fh = reinterpret_cast<std::uintptr_t>(listing->get());
  open->cache_readdir = 1;
  open->keep_cache = 1;
  if (fuse_reply_open(request, open) == 0) static_cast<void>(listing->release());
}

void closeFolder(fuse_req_t request, fuse_ino_t, fuse_file_info* open) {
  delete listingOf(open);
  fuse_reply_err(request, 0);
}

// Fills a reply with the entries from a place on; `append` gives the bytes that an entry takes, more than
// there is room for when it was left out.
template <class Append>
void replyWithEntries(fuse_req_t request, std::size_t size, off_t from, const fuse_file_info* open,
                      const Append& append) {
  const Listing& listing = *listingOf(open);
  std::vector<char> reply(size);
  std::size_t used = 0;
  for (auto i = static_cast<std::size_t>(from); i < listing.size(); ++i) {
    const auto room = std::span(reply).subspan(used);
    const std::size_t taken = append(room, listing, i);
    if (taken > room.size()) break;
    used += taken;
  }
  fuse_reply_buf(request, reply.data(), used);
}

void readFolder(fuse_req_t request, fuse_ino_t, std::size_t size, off_t from, fuse_file_info* open) {
  replyWithEntries(request, size, from, open,
                   [&](std::span<char> room, const Listing& listing, std::size_t i) {
                     const struct stat attributes = attributesOf(listing.item(i));
                     return fuse_add_direntry(request, room.data(), room.size(), listing.name(i), &attributes,
                                              static_cast<off_t>(i + 1));
                   });
}

void readFolderPlus(fuse_req_t request, fuse_ino_t, std::size_t size, off_t from, fuse_file_info* open) {
  replyWithEntries(request, size, from, open,
                   [&](std::span<char> room, const Listing& listing, std::size_t i) {
                     auto entry = entryOf(listing.item(i));
                     if (i < 2) entry.ino = 0;  // "." and ".." are not looked up
                     return fuse_add_direntry_plus(request, room.data(), room.size(), listing.name(i), &entry,
                                                   static_cast<off_t>(i + 1));
                   });
}

// Needs no answer: the kernel does not ask again, and keeps what was read.
void openFile(fuse_req_t request, fuse_ino_t, fuse_file_info*) { fuse_reply_err(request, ENOSYS); }

void readFile(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset, fuse_file_info*) {
  thread_local std::vector<std::byte> buffer;
  if (buffer.size() < size) buffer.resize(size);
  const auto got = volumeOf(request).read(static_cast<std::uint32_t>(inode),
                                          static_cast<std::uint64_t>(offset), std::span(buffer).first(size));
  if (!got) return refuse(request, got.error());
  ReadAhead& ahead = servedOf(request).ahead;
  fuse_reply_buf(request, reinterpret_cast<const char*>(buffer.data()), *got);
  ahead.wasRead(static_cast<std::uint32_t>(inode));
}

// Puts a file into the kernel's cache. Refused for one that nobody has looked at. Waits while the kernel
// waits for an answer about the same part of the file, so it is not for a thread that gives answers.
bool storeFile(fuse_session* session, std::uint32_t id, std::span<std::byte> bytes) {
  fuse_bufvec file{};
  file.count = 1;
  file.buf[0].size = bytes.size();
  file.buf[0].mem = bytes.data();
  file.buf[0].fd = -1;
  return fuse_lowlevel_notify_store(session, id, 0, &file, fuse_buf_copy_flags{}) == 0;
}

void fileSystemFacts(fuse_req_t request, fuse_ino_t) {
  const VolumeFacts& facts = volumeOf(request).facts();
  const std::uint64_t block = std::max<std::uint64_t>(facts.blockBytes, 512);
  struct statvfs reply {};
  reply.f_bsize = block;
  reply.f_frsize = block;
  reply.f_blocks = facts.bytes / block;
  reply.f_bfree = facts.freeBytes / block;
  reply.f_files = std::uint64_t{facts.files} + facts.folders;
  reply.f_namemax = kLongestName;
  fuse_reply_statfs(request, &reply);
}

// An attribute's value or list of names: its size when none is given, an error when it does not fit.
void replyWithBytes(fuse_req_t request, std::span<const char> bytes, std::size_t size) {
  if (size == 0) {
    fuse_reply_xattr(request, bytes.size());
  } else if (bytes.size() > size) {
    fuse_reply_err(request, ERANGE);
  } else {
    fuse_reply_buf(request, bytes.data(), bytes.size());
  }
}

void getAttribute(fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t size) {
  const Volume& volume = volumeOf(request);
  const auto value = volume.attribute(itemID(volume, inode), name);
  if (!value) return refuse(request, value.error());
  if (!*value) {
    fuse_reply_err(request, ENODATA);
    return;
  }
  replyWithBytes(request, {reinterpret_cast<const char*>((*value)->data()), (*value)->size()}, size);
}

// As on every file system, only root sees what is trusted.
void listAttributes(fuse_req_t request, fuse_ino_t inode, std::size_t size) {
  const Volume& volume = volumeOf(request);
  const auto names = volume.attributeNames(itemID(volume, inode));
  if (!names) return refuse(request, names.error());
  const bool isRoot = fuse_req_ctx(request)->uid == 0;
  std::string list;
  for (const auto& name : *names)
    if (isRoot || !name.starts_with("trusted.")) list.append(name).push_back('\0');
  replyWithBytes(request, list, size);
}

fuse_lowlevel_ops operations() {
  fuse_lowlevel_ops operations{};
  operations.init = start;
  operations.lookup = lookup;
  operations.getattr = getAttributes;
  operations.readlink = readLink;
  operations.open = openFile;
  operations.read = readFile;
  operations.opendir = openFolder;
  operations.readdir = readFolder;
  operations.readdirplus = readFolderPlus;
  operations.releasedir = closeFolder;
  operations.statfs = fileSystemFacts;
  operations.getxattr = getAttribute;
  operations.listxattr = listAttributes;
  return operations;
}

}  // namespace

VolumeServer::VolumeServer(const Volume& volume)
    : served_(new Served{volume, {volume, [this](std::uint32_t id, std::span<std::byte> bytes) {
                                    return storeFile(session_, id, bytes);
                                  }}}) {}

VolumeServer::~VolumeServer() {
  if (!session_) return;
  fuse_session_unmount(session_);
  if (handlesSignals_) fuse_remove_signal_handlers(session_);
  fuse_session_destroy(session_);
}

base::Result<void> VolumeServer::mount(const std::string& mountPoint, const std::string& source) {
  std::string program = "hdiutil";
  std::string option = "-o";
  std::string options = "ro,nosuid,nodev,subtype=" + std::string(kFileSystemType) + ",fsname=" + source;
  std::array<char*, 3> words{program.data(), option.data(), options.data()};
  fuse_args arguments = FUSE_ARGS_INIT(static_cast<int>(words.size()), words.data());
  const fuse_lowlevel_ops ops = operations();
  session_ = fuse_session_new(&arguments, &ops, sizeof ops, served_.get());
  fuse_opt_free_args(&arguments);
  if (!session_) return base::Error{"cannot start a session"};
  if (fuse_session_mount(session_, mountPoint.c_str()) != 0) {
    fuse_session_destroy(session_);
    session_ = nullptr;
    return base::Error{"cannot mount at " + mountPoint};
  }
  return {};
}

void VolumeServer::blockEndingSignals() {
  const sigset_t ending = endingSignals();
  ::pthread_sigmask(SIG_BLOCK, &ending, nullptr);
}

void VolumeServer::serve() {
  // libfuse takes over only what has no handler yet.
  for (const int signal : kEndingSignals) std::signal(signal, SIG_DFL);
  handlesSignals_ = fuse_set_signal_handlers(session_) == 0;
  const sigset_t ending = endingSignals();
  ::pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
  fuse_loop_config* config = fuse_loop_cfg_create();
  fuse_loop_cfg_set_clone_fd(config, 1);
  fuse_session_loop_mt(session_, config);
  fuse_loop_cfg_destroy(config);
  serveWhileReadingAhead();
}

void VolumeServer::serveWhileReadingAhead() {
  constexpr int kInterval = 1;  // milliseconds
  served_->ahead.stop();
  fuse_session_reset(session_);
  fuse_buf request{};
  while (!served_->ahead.hasStopped()) {
    pollfd device{fuse_session_fd(session_), POLLIN, 0};
    if (::poll(&device, 1, kInterval) > 0 && fuse_session_receive_buf(session_, &request) > 0)
      fuse_session_process_buf(session_, &request);
  }
  std::free(request.mem);  // NOLINT(cppcoreguidelines-no-malloc): the library's
}

}  // namespace image::fuse
