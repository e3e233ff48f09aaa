#include "platform/posix/durable_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/posix/file_descriptor.h"
#include "platform/posix/system_error.h"

namespace platform::posix {
namespace {

class FileRandomAccess : public base::RandomAccess {
 public:
  FileRandomAccess(FileDescriptor file, std::uint64_t size) : file_(std::move(file)), size_(size) {}

  std::uint64_t size() const override { return size_; }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    if (offset > size_ || into.size() > size_ - offset) return false;
    while (!into.empty()) {
      const auto got = ::pread(file_.get(), into.data(), into.size(), static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      into = into.subspan(static_cast<std::size_t>(got));
      offset += static_cast<std::uint64_t>(got);
    }
    return true;
  }

 private:
  FileDescriptor file_;
  std::uint64_t size_;
};

base::Result<void> writeAll(int file, std::span<const std::byte> contents) {
  while (!contents.empty()) {
    const auto put = ::write(file, contents.data(), contents.size());
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errorFromErrno("cannot be written");
    contents = contents.subspan(static_cast<std::size_t>(put));
  }
  return {};
}

base::Result<void> writeAndSync(int file, std::span<const std::byte> contents) {
  if (auto written = writeAll(file, contents); !written) return written;
  if (::fsync(file) != 0) return errorFromErrno("cannot be synced");
  return {};
}

void syncFolder(const std::string& folder) {
  const FileDescriptor open(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (open) ::fsync(open.get());  // some file systems cannot; the rename stands all the same
}

}  // namespace

base::Result<std::shared_ptr<const base::RandomAccess>> openFile(const std::string& path) {
  // Without O_NONBLOCK a named pipe in the place of a file would hold us up for ever.
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file && (errno == ENOENT || errno == ENOTDIR)) return std::shared_ptr<const base::RandomAccess>();
  if (!file) return errorFromErrno("cannot be opened");
  struct stat item {};
  if (::fstat(file.get(), &item) != 0) return errorFromErrno("cannot be examined");
  if (!S_ISREG(item.st_mode)) return base::Error{"not a regular file"};
  const auto size = static_cast<std::uint64_t>(item.st_size);
  return std::shared_ptr<const base::RandomAccess>(std::make_shared<FileRandomAccess>(std::move(file), size));
}

base::Result<std::optional<std::vector<std::byte>>> readFile(const std::string& path, std::uint64_t limit) {
  const auto file = openFile(path);
  if (!file) return file.error();
  if (!*file) return std::optional<std::vector<std::byte>>();
  const auto size = (*file)->size();
  if (size > limit) {
    return base::Error{"too large: " + std::to_string(size) + " bytes, at most " + std::to_string(limit) +
                       " are read"};
  }
  std::vector<std::byte> bytes(size);
  errno = 0;
  if (!(*file)->read(0, bytes))
    return errno ? errorFromErrno("cannot be read") : base::Error{"cut short while it was read"};
  return std::optional(std::move(bytes));
}

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == path.npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string linkTarget(std::string path) {
  constexpr int kMaxLinks = 40;
  for (int links = 0; links < kMaxLinks; ++links) {
    std::string target(4096, '\0');
    const auto length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) return path;
    target.resize(static_cast<std::size_t>(length));
    path = target.starts_with('/') ? target : folderOf(path) + "/" + target;
  }
  return path;
}

base::Result<void> replaceFile(const std::string& path, std::span<const std::byte> contents) {
  const auto folder = folderOf(path);
  std::string beside = folder + "/." + path.substr(path.rfind('/') + 1).substr(0, 200) + ".XXXXXX";
  const FileDescriptor file(::mkostemp(beside.data(), O_CLOEXEC));
  if (!file) return errorFromErrno("cannot be written");
  auto done = writeAndSync(file.get(), contents);
  if (done && ::rename(beside.c_str(), path.c_str()) != 0) done = errorFromErrno("cannot be replaced");
  if (!done) {
    ::unlink(beside.c_str());
    return done;
  }
  syncFolder(folder);
  return done;
}

base::Result<void> removeFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return base::Error{errnoText()};
  syncFolder(folderOf(path));
  return {};
}

base::Result<std::string> keepAside(const std::string& path) {
  constexpr int kMaxKept = 10000;
  struct stat item {};
  if (::lstat(path.c_str(), &item) == 0 && S_ISDIR(item.st_mode))
    return base::Error{"a folder is in its place"};
  for (int number = 1; number <= kMaxKept; ++number) {
    const auto aside = path + ".damaged" + (number == 1 ? "" : "-" + std::to_string(number));
    if (::link(path.c_str(), aside.c_str()) == 0) return aside;
    if (errno == EEXIST) continue;
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) return aside;
    if (errno != EEXIST) return errorFromErrno("cannot be kept aside");
  }
  return base::Error{"cannot be kept aside: there are too many damaged ones"};
}

}  // namespace platform::posix
