#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "platform/fake/clock.h"
#include "platform/fake/failure.h"
#include "ports/files.h"

namespace platform::fake {

// Real files in a temporary folder that stands for "/" and is removed at the end. Enumerations go by name, in
// byte order. What is written through this class bears the world's time.
class Files : public ports::Files {
 public:
  static constexpr const char* kApplicationSupport = "/Users/tester/Library/Application Support";
  static constexpr std::uint64_t kDefaultFreeSize = 100'000'000'000;

  Files(Clock& clock, Failure& fail);
  ~Files() override;

  std::string applicationSupportDirectory() override;
  bool fileExists(const std::string& path) override;
  std::optional<std::uint64_t> fileSize(const std::string& path) override;
  std::optional<std::uint64_t> fileSystemFreeSize(const std::string& path) override;
  bool createDirectory(const std::string& path) override;
  void enumerate(const std::string& path, const ports::ResourceKeys& keys,
                 const std::function<bool(const ports::FileItem&)>& visit) override;

  // Where a logical path really is, for tests that need more than what follows.
  std::filesystem::path realPath(std::string_view path) const;

  // Writes a whole file, with the folders above it. False when the file system refuses.
  bool write(const std::string& path, std::string_view contents);
  std::optional<std::string> read(const std::string& path) const;
  void remove(const std::string& path);  // with everything below
  void setModificationDate(const std::string& path, base::Date date);
  // Without one, an item's creation date is its modification date. Counts for the path, whatever stands
  // there.
  void setCreationDate(const std::string& path, base::Date date);

  // Free bytes of the volume "/Volumes/NAME", or of the system's own disk when the path is on no volume.
  void setFreeSize(const std::string& path, std::uint64_t bytes);

  // Makes a mounted volume without a disk, such as an image's: the empty folder "/Volumes/NAME".
  void addVolume(const std::string& name);
  void removeVolume(const std::string& name);

  // Stops the enumeration that comes to this item, before its visit, until it is let go on.
  void holdEnumerationAt(const std::string& path);
  void waitUntilEnumerationIsHeld();
  void releaseEnumeration();

 private:
  void waitWhileHeld(const std::string& path);
  bool enumerateFolder(const std::string& path, const ports::ResourceKeys& keys,
                       const std::function<bool(const ports::FileItem&)>& visit);
  std::optional<ports::FileItem> itemAt(const std::string& path, const ports::ResourceKeys& keys) const;

  Clock& clock_;
  Failure& fail_;
  std::filesystem::path root_;
  mutable base::Mutex mutex_;
  std::condition_variable_any holdChanged_;
  std::map<std::string, base::Date> creationDates_ GUARDED_BY(mutex_);
  std::map<std::string, std::uint64_t> freeSizes_ GUARDED_BY(mutex_);  // by volume; "" is the system's disk
  std::optional<std::string> holdAt_ GUARDED_BY(mutex_);
  bool held_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform::fake
