#pragma once

#include <memory>
#include <vector>

#include "base/mutex.h"
#include "base/random_access.h"
#include "image/os/file_descriptor.h"

namespace image::os {

// A file past the page cache: what comes back is what the disk has, and what was written is there, or in the
// disk's own cache, when write() returns. Any number of threads may read and write at once.
class DirectFile : public base::RandomAccess {
 public:
  static constexpr std::size_t kAlignment = 4096;

  // The open file `number` once more. size: where reading ends. Null where the file system cannot do this.
  static std::unique_ptr<DirectFile> open(int number, std::uint64_t size);

  std::uint64_t size() const override { return size_; }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override;
  // Offset and length are multiples of kAlignment. Gives how much was written before something failed, which
  // errno then tells.
  std::size_t write(std::uint64_t offset, std::span<const std::byte> bytes) const;

 private:
  struct FreeAligned {
    void operator()(std::byte* bytes) const;
  };
  struct Buffer {
    std::unique_ptr<std::byte[], FreeAligned> bytes;
    std::size_t size = 0;
  };

  DirectFile(FileDescriptor file, std::uint64_t size) : file_(std::move(file)), size_(size) {}

  Buffer takeBuffer(std::size_t size) const;
  void giveBack(Buffer buffer) const;
  bool readAligned(std::uint64_t offset, std::span<std::byte> into, std::uint64_t end) const;

  FileDescriptor file_;
  std::uint64_t size_;
  mutable base::Mutex mutex_;
  mutable std::vector<Buffer> spare_ GUARDED_BY(mutex_);
};

}  // namespace image::os
