#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "base/random_access.h"
#include "base/result.h"
#include "image/block/output.h"
#include "image/os/direct_file.h"
#include "image/os/file_descriptor.h"

namespace image::os {

// A file that appears under its name only when it is whole. Until then it has no name at all, or, where the
// file system cannot do that, a hidden one in the same folder, which is removed when the NewFile goes away;
// what killed processes left in a folder is removed by the next create() there, also one that is refused.
// Only its owner may read or write it.
class NewFile : public block::Output {
 public:
  // Refuses a path where something exists already.
  static base::Result<std::unique_ptr<NewFile>> create(const std::string& path);
  ~NewFile() override;

  base::Result<void> write(std::uint64_t offset, std::span<std::byte> bytes) override;
  std::unique_ptr<base::RandomAccess> readBack() const override;
  // Where it is being made, for messages.
  std::string folder() const;
  // What the file system there has left for its user; nullopt where it does not say.
  std::optional<std::uint64_t> freeBytes() const;
  // Takes the space of so many bytes at once, where the file system can; what is not written is given back by
  // sync().
  void reserveWhole(std::uint64_t bytes);
  // Forgets what was written.
  base::Result<void> clear();
  // Makes what was written durable.
  base::Result<void> sync();
  // What is on disk (after sync(), read from there anew), for any number of threads; lives no longer than the
  // NewFile.
  std::unique_ptr<base::RandomAccess> contents() const;
  // Gives the file its name, never in place of another, and makes that durable too.
  base::Result<void> publish();

 private:
  NewFile(std::string path, FileDescriptor folder, FileDescriptor file, std::string hiddenName);

  void reserve(std::uint64_t end);
  base::Result<void> giveName();

  std::string path_;
  std::string name_;
  FileDescriptor folder_;
  FileDescriptor file_;
  // Empty while the file has no name.
  std::string hiddenName_;
  // Null where the file system has no such thing.
  std::unique_ptr<DirectFile> direct_;
  mutable base::Mutex mutex_;
  std::uint64_t length_ GUARDED_BY(mutex_) = 0;
  std::uint64_t reserved_ GUARDED_BY(mutex_) = 0;
};

// An existing file, for any number of threads.
base::Result<std::unique_ptr<base::RandomAccess>> openFile(const std::string& path);

}  // namespace image::os
