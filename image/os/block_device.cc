#include "image/os/block_device.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <utility>

#include "image/os/posix_error.h"

namespace image::os {
namespace {

namespace fs = std::filesystem;

std::string readLine(const fs::path& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

std::optional<std::uint64_t> numberIn(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::uint64_t numberAt(const fs::path& file) { return numberIn(readLine(file)).value_or(0); }

Disk diskAt(const fs::path& folder) {
  return {.device = "/dev/" + folder.filename().string(),
          .folder = folder,
          .sequence = numberAt(folder / "diskseq"),
          .bytes = numberAt(folder / "size") * 512};
}

base::Result<Disk> diskOfSequence(std::uint64_t sequence) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/sys/block", error))
    if (const fs::path folder = fs::canonical(entry.path(), error);
        !error && numberAt(folder / "diskseq") == sequence)
      return diskAt(folder);
  return base::Error{"there is no disk" + std::to_string(sequence) + " here"};
}

base::Result<Disk> diskOfDevice(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return posixError("cannot find", path, errno);
  if (!S_ISBLK(status.st_mode)) return base::Error{path + " is not a disk"};
  std::error_code error;
  const std::string number =
      std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
  const fs::path folder = fs::canonical("/sys/dev/block/" + number, error);
  if (error) return base::Error{"cannot look " + path + " up: " + error.message()};
  if (fs::exists(folder / "partition")) return base::Error{path + " is a partition; a whole disk is needed"};
  return diskAt(folder);
}

// The disk's own folder and its partitions'.
std::vector<fs::path> partsOf(const Disk& disk) {
  std::vector<fs::path> parts{disk.folder};
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(disk.folder, error))
    if (fs::exists(entry.path() / "partition", error)) parts.push_back(entry.path());
  return parts;
}

bool isConnectedByUSB(const Disk& disk) {
  std::error_code error;
  for (fs::path at = disk.folder; at.has_relative_path(); at = at.parent_path())
    if (fs::read_symlink(at / "subsystem", error).filename() == "usb") return true;
  return false;
}

bool isLoop(const Disk& disk) { return fs::exists(fs::path(disk.folder) / "loop"); }

// What the kernel's tables of mounts and of swap write as \ooo.
std::string unescaped(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned code = 0;
    const bool escape = text[i] == '\\' && i + 3 < text.size() &&
                        std::from_chars(text.data() + i + 1, text.data() + i + 4, code, 8).ec == std::errc{};
    plain += escape ? static_cast<char>(code) : text[i];
    if (escape) i += 3;
  }
  return plain;
}

base::Result<void> requireFree(const Disk& disk) {
  std::error_code error;
  std::set<std::string> devices;
  for (const fs::path& part : partsOf(disk)) {
    devices.insert("/dev/" + part.filename().string());
    for (const auto& holder : fs::directory_iterator(part / "holders", error))
      return base::Error{disk.device + " is in use by " + holder.path().filename().string()};
  }
  std::ifstream swaps("/proc/swaps");
  for (std::string line; std::getline(swaps, line);)
    if (devices.contains(unescaped(line.substr(0, line.find_first_of(" \t")))))
      return base::Error{disk.device + " is in use as swap space"};
  return {};
}

base::Result<void> copyRange(int to, int from, off_t begin, off_t end) {
  std::vector<std::byte> buffer(1u << 20);
  while (begin < end) {
    const auto most =
        static_cast<std::size_t>(std::min<off_t>(end - begin, static_cast<off_t>(buffer.size())));
    const ssize_t got = ::pread(from, buffer.data(), most, begin);
    if (got <= 0) return posixError("cannot read", "the prepared bytes", got < 0 ? errno : EIO);
    const ssize_t put = ::pwrite(to, buffer.data(), static_cast<std::size_t>(got), begin);
    if (put <= 0) return posixError("cannot write to", "the disk", put < 0 ? errno : EIO);
    begin += put;
  }
  return {};
}

base::Result<void> sync(int file) {
  if (::fsync(file) != 0) return posixError("cannot write to", "the disk", errno);
  return {};
}

}  // namespace

base::Result<Disk> findDisk(const std::string& name) {
  std::string_view short_name = name;
  if (short_name.starts_with("/dev/")) short_name.remove_prefix(5);
  if (short_name.starts_with("disk"))
    if (const auto sequence = numberIn(short_name.substr(4)); sequence && *sequence != 0)
      return diskOfSequence(*sequence);
  if (!name.starts_with('/')) return base::Error{"there is no disk \"" + name + "\" here"};
  return diskOfDevice(name);
}

base::Result<void> requireErasable(const Disk& disk) {
  const fs::path folder(disk.folder);
  if (!isLoop(disk) && !isConnectedByUSB(disk))
    return base::Error{disk.device + " is not a removable disk on USB, and no other is erased"};
  if (disk.bytes == 0) return base::Error{disk.device + " has no medium"};
  if (numberAt(folder / "ro") != 0) return base::Error{disk.device + " is write-protected"};
  if (numberAt(folder / "queue/logical_block_size") != 512)
    return base::Error{disk.device + " has sectors of other than 512 bytes"};
  return requireFree(disk);
}

base::Result<std::vector<MountPlace>> mountPlaces(const Disk& disk) {
  std::set<std::string> numbers;
  for (const fs::path& part : partsOf(disk)) numbers.insert(readLine(part / "dev"));
  std::ifstream table("/proc/self/mountinfo");
  if (!table) return base::Error{"cannot read the list of mounted volumes"};
  std::vector<MountPlace> places;
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id, parent, number, root, folder, device;
    fields >> id >> parent >> number >> root >> folder;
    for (std::string field; fields >> field && field != "-";) continue;
    fields >> device >> device;  // the type first
    if (numbers.contains(number)) places.push_back({unescaped(device), unescaped(folder)});
  }
  return places;
}

base::Result<void> unmount(const MountPlace& place) {
  if (::umount2(place.folder.c_str(), UMOUNT_NOFOLLOW) != 0)
    return posixError("cannot unmount", place.folder, errno);
  return {};
}

base::Result<OpenedDisk> openAlone(const Disk& disk) {
  FileDescriptor file(::open(disk.device.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
  if (file) return OpenedDisk{.file = std::move(file), .forbidden = false};
  if (errno == EACCES || errno == EPERM) return OpenedDisk{.file = {}, .forbidden = true};
  return posixError("cannot have to itself", disk.device, errno);
}

base::Result<void> requireSame(const FileDescriptor& file, const Disk& disk) {
  std::uint64_t sequence = 0;
  if (::ioctl(file.number(), BLKGETDISKSEQ, &sequence) != 0)
    return posixError("cannot ask for the sequence number of", disk.device, errno);
  if (sequence != disk.sequence) return base::Error{disk.device + " is another disk by now"};
  return {};
}

base::Result<void> overwrite(const FileDescriptor& disk, const FileDescriptor& contents) {
  constexpr off_t kTableBytes = 1 << 20;
  const int to = disk.number();
  const std::vector<std::byte> nothing(kTableBytes);
  if (::pwrite(to, nothing.data(), nothing.size(), 0) != static_cast<ssize_t>(nothing.size()))
    return posixError("cannot write to", "the disk", errno);
  if (auto synced = sync(to); !synced) return synced;
  for (off_t at = kTableBytes;;) {
    const off_t begin = ::lseek(contents.number(), at, SEEK_DATA);
    if (begin < 0) break;
    at = ::lseek(contents.number(), begin, SEEK_HOLE);
    if (auto copied = copyRange(to, contents.number(), begin, at); !copied) return copied;
  }
  if (auto synced = sync(to); !synced) return synced;
  if (auto copied = copyRange(to, contents.number(), 0, kTableBytes); !copied) return copied;
  return sync(to);
}

base::Result<void> readPartitionsAgain(const FileDescriptor& file) {
  constexpr std::chrono::seconds kPatience{10};
  constexpr std::chrono::milliseconds kInterval{100};
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (::ioctl(file.number(), BLKRRPART) != 0) {
    const int error = errno;
    if (error != EBUSY || std::chrono::steady_clock::now() >= deadline)
      return posixError("cannot show the system", "its new partition", error);
    std::this_thread::sleep_for(kInterval);
  }
  return {};
}

}  // namespace image::os
