#include "image/os/direct_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <string>
#include <unistd.h>

namespace image::os {

std::unique_ptr<DirectFile> DirectFile::open(int number, std::uint64_t size) {
  const std::string path = "/proc/self/fd/" + std::to_string(number);
  FileDescriptor file(::open(path.c_str(), O_RDWR | O_DIRECT | O_CLOEXEC));
  return file ? std::unique_ptr<DirectFile>(new DirectFile(std::move(file), size)) : nullptr;
}

void DirectFile::FreeAligned::operator()(std::byte* bytes) const {
  ::operator delete[](bytes, std::align_val_t{kAlignment});
}

DirectFile::Buffer DirectFile::takeBuffer(std::size_t size) const {
  {
    base::MutexLock lock(mutex_);
    if (!spare_.empty()) {
      Buffer buffer = std::move(spare_.back());
      spare_.pop_back();
      if (buffer.size >= size) return buffer;
    }
  }
  auto* const bytes = static_cast<std::byte*>(::operator new[](size, std::align_val_t{kAlignment}));
  return {std::unique_ptr<std::byte[], FreeAligned>(bytes), size};
}

void DirectFile::giveBack(Buffer buffer) const {
  base::MutexLock lock(mutex_);
  spare_.push_back(std::move(buffer));
}

bool DirectFile::read(std::uint64_t offset, std::span<std::byte> into) const {
  if (offset > size_ || into.size() > size_ - offset) return false;
  if (into.empty()) return true;
  const std::uint64_t from = offset / kAlignment * kAlignment;
  const std::uint64_t to = (offset + into.size() + kAlignment - 1) / kAlignment * kAlignment;
  // The analyzer loses sight of buffers that are handed back.
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
  auto buffer = takeBuffer(to - from);
  const bool done = readAligned(from, std::span(buffer.bytes.get(), to - from), offset + into.size());
  if (done) std::copy_n(buffer.bytes.get() + (offset - from), into.size(), into.begin());
  giveBack(std::move(buffer));
  return done;
}

// The last block of a file comes back shorter; what counts is that it reaches `end`.
bool DirectFile::readAligned(std::uint64_t offset, std::span<std::byte> into, std::uint64_t end) const {
  while (offset < end) {
    const ssize_t got = ::pread(file_.number(), into.data(), into.size(), static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    into = into.subspan(static_cast<std::size_t>(got));
    offset += static_cast<std::uint64_t>(got);
  }
  return true;
}

std::size_t DirectFile::write(std::uint64_t offset, std::span<const std::byte> bytes) const {
  auto buffer = takeBuffer(bytes.size());  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the same
  std::ranges::copy(bytes, buffer.bytes.get());
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t put = ::pwrite(file_.number(), buffer.bytes.get() + done, bytes.size() - done,
                                 static_cast<off_t>(offset + done));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) break;
    done += static_cast<std::size_t>(put);
  }
  const int code = errno;
  giveBack(std::move(buffer));
  errno = code;
  return done;
}

}  // namespace image::os
