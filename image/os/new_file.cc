#include "image/os/new_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <utility>

#include "image/os/posix_error.h"

namespace image::os {
namespace {

// What people keep is nobody else's to read.
constexpr mode_t kFileMode = 0600;

struct PathParts {
  std::string folder;
  std::string name;
};

PathParts splitPath(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

base::Error existsError(const std::string& path) { return {"cannot create " + path + ": it exists already"}; }

constexpr std::string_view kHiddenSuffix = ".unfinished";

// Long names are cut so that the hidden one is none that a file system refuses.
std::string hiddenPrefix(std::string_view name) { return "." + std::string(name.substr(0, 200)) + "."; }

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

// ".NAME.PROCESS-ATTEMPT.unfinished".
bool isHiddenName(std::string_view name) {
  if (!name.starts_with('.') || !name.ends_with(kHiddenSuffix)) return false;
  name.remove_suffix(kHiddenSuffix.size());
  const auto dot = name.rfind('.');
  const std::string_view number = name.substr(dot + 1);
  return dot > 1 && number.find_first_not_of("0123456789-") == std::string_view::npos &&
         number.find('-') != std::string_view::npos;
}

// A hidden file of this name that nobody holds a lock on was left by a process that is no more.
void removeIfAbandoned(int folder, const char* name) {
  FileDescriptor file(::openat(folder, name, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
  if (file && ::flock(file.number(), LOCK_EX | LOCK_NB) == 0) ::unlinkat(folder, name, 0);
}

void removeAbandoned(int folder) {
  FileDescriptor own(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, CloseFolder> entries(own ? ::fdopendir(own.number()) : nullptr);
  if (!entries) return;
  own.release();
  while (const dirent* entry = ::readdir(entries.get()))
    if (isHiddenName(entry->d_name)) removeIfAbandoned(folder, entry->d_name);
}

struct OpenedFile {
  FileDescriptor file;
  std::string hiddenName;
};

bool hasName(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 && status.st_nlink != 0;
}

// Locked for as long as it is open, which tells it from an abandoned one. Another run may have taken it for
// one before the lock was there.
base::Result<OpenedFile> openHidden(int folder, const std::string& name, const std::string& path) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string hidden = hiddenPrefix(name) + std::to_string(::getpid()) + "-" + std::to_string(attempt);
    hidden += kHiddenSuffix;
    FileDescriptor file(::openat(folder, hidden.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    if (!file && errno == EEXIST) continue;
    if (!file) return posixError("cannot create", path, errno);
    ::flock(file.number(), LOCK_EX);
    if (!hasName(file.number())) continue;
    return OpenedFile{std::move(file), std::move(hidden)};
  }
  return posixError("cannot create", path, EEXIST);
}

// Not every file system has nameless files, and not every one says so in the same way.
base::Result<OpenedFile> openUnfinished(int folder, const std::string& name, const std::string& path) {
  FileDescriptor nameless(::openat(folder, ".", O_RDWR | O_TMPFILE | O_CLOEXEC, kFileMode));
  if (nameless) return OpenedFile{std::move(nameless), {}};
  return openHidden(folder, name, path);
}

class OpenFile : public base::RandomAccess {
 public:
  OpenFile(int file, std::uint64_t size) : file_(file), size_(size) {}
  std::uint64_t size() const override { return size_; }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    while (!into.empty()) {
      const ssize_t got = ::pread(file_, into.data(), into.size(), static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      into = into.subspan(static_cast<std::size_t>(got));
      offset += static_cast<std::uint64_t>(got);
    }
    return true;
  }

 private:
  int file_;
  std::uint64_t size_;
};

class OwnedFile : public OpenFile {
 public:
  OwnedFile(FileDescriptor file, std::uint64_t size)
      : OpenFile(file.number(), size), owned_(std::move(file)) {}

 private:
  FileDescriptor owned_;
};

}  // namespace

NewFile::NewFile(std::string path, FileDescriptor folder, FileDescriptor file, std::string hiddenName)
    : path_(std::move(path)),
      name_(splitPath(path_).name),
      folder_(std::move(folder)),
      file_(std::move(file)),
      hiddenName_(std::move(hiddenName)),
      direct_(DirectFile::open(file_.number(), std::numeric_limits<std::int64_t>::max())) {}

base::Result<std::unique_ptr<NewFile>> NewFile::create(const std::string& path) {
  const auto [folderPath, name] = splitPath(path);
  FileDescriptor folder(::open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return posixError("cannot create " + path + ": cannot open the folder", folderPath, errno);
  removeAbandoned(folder.number());
  struct stat status {};
  if (::fstatat(folder.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return existsError(path);
  auto opened = openUnfinished(folder.number(), name, path);
  if (!opened) return opened.error();
  return std::unique_ptr<NewFile>(
      new NewFile(path, std::move(folder), std::move(opened->file), std::move(opened->hiddenName)));
}

NewFile::~NewFile() {
  if (!hiddenName_.empty()) ::unlinkat(folder_.number(), hiddenName_.c_str(), 0);
}

// Space is taken ahead of what is written: writes then wait neither for it nor for each other. Where that
// fails the write says what is wrong.
void NewFile::reserve(std::uint64_t end) {
  constexpr std::uint64_t kStep = 64 << 20;
  base::MutexLock lock(mutex_);
  length_ = std::max(length_, end);
  if (end <= reserved_) return;
  const std::uint64_t from = std::exchange(reserved_, (end + kStep - 1) / kStep * kStep);
  ::fallocate(file_.number(), 0, static_cast<off_t>(from), static_cast<off_t>(reserved_ - from));
}

std::string NewFile::folder() const { return splitPath(path_).folder; }

std::optional<std::uint64_t> NewFile::freeBytes() const {
  struct statvfs status {};
  if (::fstatvfs(folder_.number(), &status) != 0 || status.f_blocks == 0) return std::nullopt;
  return std::uint64_t{status.f_bavail} * status.f_frsize;
}

void NewFile::reserveWhole(std::uint64_t bytes) {
  base::MutexLock lock(mutex_);
  if (::fallocate(file_.number(), 0, 0, static_cast<off_t>(bytes)) == 0)
    reserved_ = std::max(reserved_, bytes);
}

// What is aligned goes to the disk at once and does not pass through the page cache.
base::Result<void> NewFile::write(std::uint64_t offset, std::span<std::byte> bytes) {
  reserve(offset + bytes.size());
  if (direct_ && (offset | bytes.size()) % DirectFile::kAlignment == 0) {
    const std::size_t done = direct_->write(offset, bytes);
    if (done == bytes.size()) return {};
    if (errno != EINVAL) return posixError("cannot write", path_, errno);
    bytes = bytes.subspan(done);
    offset += done;
  }
  while (!bytes.empty()) {
    const ssize_t put = ::pwrite(file_.number(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return posixError("cannot write", path_, errno);
    bytes = bytes.subspan(static_cast<std::size_t>(put));
    // The disk works while the next chunk is being made, and has little left to do at the end.
    ::sync_file_range(file_.number(), static_cast<off_t>(offset), put, SYNC_FILE_RANGE_WRITE);
    offset += static_cast<std::uint64_t>(put);
  }
  return {};
}

std::unique_ptr<base::RandomAccess> NewFile::readBack() const {
  return DirectFile::open(file_.number(), std::numeric_limits<std::int64_t>::max());
}

base::Result<void> NewFile::clear() {
  base::MutexLock lock(mutex_);
  if (::ftruncate(file_.number(), 0) != 0) return posixError("cannot write", path_, errno);
  length_ = reserved_ = 0;
  return {};
}

base::Result<void> NewFile::sync() {
  base::MutexLock lock(mutex_);
  if (::ftruncate(file_.number(), static_cast<off_t>(length_)) != 0 || ::fsync(file_.number()) != 0)
    return posixError("cannot write", path_, errno);
  return {};
}

std::unique_ptr<base::RandomAccess> NewFile::contents() const {
  base::MutexLock lock(mutex_);
  if (auto direct = DirectFile::open(file_.number(), length_)) return direct;
  ::posix_fadvise(file_.number(), 0, 0, POSIX_FADV_DONTNEED);
  return std::make_unique<OpenFile>(file_.number(), length_);
}

base::Result<void> NewFile::giveName() {
  if (hiddenName_.empty()) {
    const std::string self = "/proc/self/fd/" + std::to_string(file_.number());
    if (::linkat(AT_FDCWD, self.c_str(), folder_.number(), name_.c_str(), AT_SYMLINK_FOLLOW) == 0) return {};
  } else {
    if (::renameat2(folder_.number(), hiddenName_.c_str(), folder_.number(), name_.c_str(),
                    RENAME_NOREPLACE) == 0) {
      hiddenName_.clear();
      return {};
    }
    // File systems without that flag may still have links, which do not replace either.
    if (errno == EINVAL &&
        ::linkat(folder_.number(), hiddenName_.c_str(), folder_.number(), name_.c_str(), 0) == 0)
      return {};
  }
  return errno == EEXIST ? existsError(path_) : posixError("cannot create", path_, errno);
}

base::Result<void> NewFile::publish() {
  if (auto named = giveName(); !named) return named;
  if (::fsync(folder_.number()) == 0 || errno == EINVAL) return {};
  const int code = errno;
  ::unlinkat(folder_.number(), name_.c_str(), 0);
  return posixError("cannot write", path_, code);
}

base::Result<std::unique_ptr<base::RandomAccess>> openFile(const std::string& path) {
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.number(), &status) != 0) return posixError("cannot open", path, errno);
  if (!S_ISREG(status.st_mode)) return base::Error{"cannot open " + path + ": not a file"};
  return std::unique_ptr<base::RandomAccess>(
      std::make_unique<OwnedFile>(std::move(file), static_cast<std::uint64_t>(status.st_size)));
}

}  // namespace image::os
