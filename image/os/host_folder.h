#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "image/os/attribute_reader.h"
#include "image/os/file_descriptor.h"

namespace image::os {

// Errors in this file hold only the reason, as whoever asks knows the path.

// What an item is given once it has its data.
struct ItemAttributes {
  // The lower 12 bits of a mode.
  std::uint16_t permissions = 0;
  std::uint32_t user = 0;
  std::uint32_t group = 0;
  std::timespec accessed{};
  std::timespec modified{};
  std::vector<ReadAttribute> extended{};
};

// A part of an item that could not be given to it.
struct LeftOut {
  std::string what;
  std::string reason;
};

struct ExistingItem {
  bool isFolder = false;
  // What makes it out among all items.
  std::uint64_t device = 0;
  std::uint64_t number = 0;
  friend auto operator<=>(const ExistingItem&, const ExistingItem&) = default;
};

enum class Made {
  yes,
  // Something has that name, or one that is the same to the file system.
  existsAlready,
  // The file system, or this user, has no such items.
  notPossible
};

// An item that has been made and is to be filled or given its attributes. Any number of threads may write.
class MadeItem {
 public:
  // hasData: whether the descriptor can be written to; otherwise it only says which item it is.
  MadeItem(FileDescriptor file, bool hasData) : file_(std::move(file)), hasData_(hasData) {}

  // Leaves whole 4 KiB blocks of zeros out; setSize() says where the file ends when the last one is such.
  base::Result<void> write(std::uint64_t offset, std::span<const std::byte> bytes) const;
  base::Result<void> setSize(std::uint64_t size) const;
  // Owner, extended attributes, permissions and dates, in the order in which none undoes another. Only root
  // gives owners, nobody else is told; an item runs as its owner (the set-id bits) only when it has the right
  // one. Where an access control list cannot be given, the group is given no permission: the group's bits
  // stood for the list.
  base::Result<std::vector<LeftOut>> give(const ItemAttributes& attributes) const;
  base::Result<ExistingItem> look() const;

 private:
  FileDescriptor file_;
  bool hasData_;
};

// What is in a folder, as far as an image keeps it.
struct HostItem {
  std::string name;
  // With the type.
  std::uint16_t mode = 0;
  std::uint32_t user = 0;
  std::uint32_t group = 0;
  std::uint64_t size = 0;
  // Of a device: major number in the upper 12 bits, minor in the lower 20.
  std::uint32_t device = 0;
  std::timespec modified{};
};

// A file whose bytes are read. Any number of threads may read.
class HostFile {
 public:
  explicit HostFile(FileDescriptor file) : file_(std::move(file)) {}
  // Fewer bytes than asked for only at the end.
  base::Result<std::size_t> read(std::uint64_t offset, std::span<std::byte> into) const;

 private:
  FileDescriptor file_;
};

// A folder that items are put into, or compared with. No call follows a symbolic link in it, and names are
// single parts of paths that the caller has checked. Any number of threads may call.
class HostFolder {
 public:
  // A path that is a symbolic link is followed.
  static base::Result<HostFolder> open(const std::string& path);
  // False when something is there already.
  static base::Result<bool> make(const std::string& path);

  base::Result<HostFolder> openFolder(const std::string& name) const;
  // Several names, '/' between; empty: this folder once more.
  base::Result<HostFolder> openPath(std::string_view path) const;
  // In no particular order, without "." and "..".
  base::Result<std::vector<HostItem>> list() const;
  base::Result<std::string> linkTarget(const std::string& name) const;
  // Leaves its access date alone where that is allowed.
  base::Result<HostFile> openFile(const std::string& name) const;
  base::Result<std::optional<ExistingItem>> look(const std::string& name) const;
  base::Result<bool> isEmpty() const;

  // For its owner only, until it is given its attributes.
  base::Result<Made> makeFolder(const std::string& name) const;
  base::Result<Made> makeSymbolicLink(const std::string& name, const std::string& target) const;
  // mode: the type's bits. device: major number in the upper 12 bits, minor in the lower 20.
  base::Result<Made> makeSpecial(const std::string& name, std::uint16_t mode, std::uint32_t device) const;
  base::Result<Made> makeHardLink(const std::string& name, const HostFolder& folder,
                                  const std::string& existing) const;
  // nullopt when something has the name already.
  base::Result<std::optional<MadeItem>> makeFile(const std::string& name, std::uint16_t permissions) const;
  // An item that is not to be written to.
  base::Result<MadeItem> openItem(const std::string& name) const;
  // The folder itself.
  base::Result<MadeItem> self() const;

  base::Result<Made> rename(const std::string& from, const std::string& to, bool replaces) const;
  // Whatever it is, but a folder.
  void remove(const std::string& name) const;
  // A hidden name that this process has not given yet.
  static std::string unfinishedName();

 private:
  // Calls visit(name) for each item; false ends it.
  template <class Visit>
  base::Result<void> forEachName(Visit visit) const;

  explicit HostFolder(FileDescriptor folder) : folder_(std::move(folder)) {}

  FileDescriptor folder_;
};

}  // namespace image::os
