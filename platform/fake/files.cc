#include "platform/fake/files.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <vector>

#include "platform/fake/changes.h"

namespace platform::fake {
namespace {

namespace fs = std::filesystem;

fs::path makeTemporaryFolder(const Failure& fail) {
  std::string name = (fs::temp_directory_path() / "fake-world-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) fail("no folder for the world's files can be made: " + name);
  return fs::canonical(name);
}

std::string normalized(std::string_view path) {
  std::string text = fs::path("/" + std::string(path)).lexically_normal().string();
  while (text.size() > 1 && text.ends_with('/')) text.pop_back();
  return text.starts_with("//") ? text.substr(1) : text;
}

// "STICK" for everything below "/Volumes/STICK", else "".
std::string volumeOf(const std::string& path) {
  constexpr std::string_view kVolumes = "/Volumes/";
  if (!path.starts_with(kVolumes)) return {};
  return path.substr(kVolumes.size(), path.find('/', kVolumes.size()) - kVolumes.size());
}

// A path with a NUL is nowhere; the system's calls would see its beginning only.
std::optional<struct stat> linkStatus(const fs::path& real) {
  struct stat status {};
  if (real.native().find('\0') != std::string::npos || lstat(real.c_str(), &status) != 0) return std::nullopt;
  return status;
}

base::Date modificationDate(const struct stat& status) {
  return base::Date::fromUnix(static_cast<double>(status.st_mtim.tv_sec) +
                              static_cast<double>(status.st_mtim.tv_nsec) * 1e-9);
}

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    names.push_back(entry->path().filename().string());
  }
  std::ranges::sort(names);
  return names;
}

}  // namespace

Files::Files(Clock& clock, Failure& fail) : clock_(clock), fail_(fail), root_(makeTemporaryFolder(fail)) {
  std::error_code error;
  fs::create_directory(root_ / "Volumes", error);
  if (error) fail("the folder of the world's volumes cannot be made: " + error.message());
}

Files::~Files() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

fs::path Files::realPath(std::string_view path) const {
  return root_ / fs::path(normalized(path)).relative_path();
}

std::string Files::applicationSupportDirectory() {
  createDirectory(kApplicationSupport);
  return kApplicationSupport;
}

bool Files::fileExists(const std::string& path) { return linkStatus(realPath(path)).has_value(); }

std::optional<std::uint64_t> Files::fileSize(const std::string& path) {
  const auto status = linkStatus(realPath(path));
  if (!status) return std::nullopt;
  return static_cast<std::uint64_t>(status->st_size);
}

std::optional<std::uint64_t> Files::fileSystemFreeSize(const std::string& path) {
  std::error_code error;
  const auto real = fs::canonical(realPath(path), error);
  if (error) return std::nullopt;
  const auto volume = volumeOf("/" + real.lexically_relative(root_).string());
  const base::MutexLock lock(mutex_);
  const auto size = freeSizes_.find(volume);
  return size == freeSizes_.end() ? kDefaultFreeSize : size->second;
}

bool Files::createDirectory(const std::string& path) {
  std::error_code error;
  fs::create_directories(realPath(path), error);
  return fs::is_directory(realPath(path), error);
}

void Files::enumerate(const std::string& path, const ports::ResourceKeys& keys,
                      const std::function<bool(const ports::FileItem&)>& visit) {
  enumerateFolder(path, keys, visit);
}

bool Files::enumerateFolder(const std::string& path, const ports::ResourceKeys& keys,
                            const std::function<bool(const ports::FileItem&)>& visit) {
  for (const auto& name : namesIn(realPath(path))) {
    const std::string itemPath = path + "/" + name;
    waitWhileHeld(itemPath);
    const auto item = itemAt(itemPath, keys);
    if (!item) continue;
    if (!visit(*item) || (item->isDirectory && !enumerateFolder(itemPath, keys, visit))) return false;
  }
  return true;
}

std::optional<ports::FileItem> Files::itemAt(const std::string& path, const ports::ResourceKeys& keys) const {
  const auto status = linkStatus(realPath(path));
  if (!status) return std::nullopt;
  ports::FileItem item;
  item.path = path;
  item.name = item.path.substr(path.rfind('/') + 1);
  item.isDirectory = S_ISDIR(status->st_mode);
  item.isRegularFile = S_ISREG(status->st_mode);
  if (keys.isHidden) item.isHidden = item.name.starts_with('.');
  if (keys.totalFileSize && item.isRegularFile)
    item.totalFileSize = static_cast<std::uint64_t>(status->st_size);
  if (keys.contentModificationDate) item.contentModificationDate = modificationDate(*status);
  if (keys.creationDate) {
    const base::MutexLock lock(mutex_);
    const auto set = creationDates_.find(normalized(path));
    item.creationDate = set == creationDates_.end() ? modificationDate(*status) : set->second;
  }
  return item;
}

bool Files::write(const std::string& path, std::string_view contents) {
  const auto real = realPath(path);
  std::error_code error;
  fs::create_directories(real.parent_path(), error);
  std::ofstream file(real, std::ios::binary | std::ios::trunc);
  file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  file.close();
  if (file) setModificationDate(path, clock_.now());
  return static_cast<bool>(file);
}

std::optional<std::string> Files::read(const std::string& path) const {
  std::ifstream file(realPath(path), std::ios::binary);
  if (!file || fs::is_directory(realPath(path))) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void Files::remove(const std::string& path) {
  std::error_code error;
  fs::remove_all(realPath(path), error);
  if (error) fail_(path + " cannot be removed: " + error.message());
}

void Files::setModificationDate(const std::string& path, base::Date date) {
  const double seconds = std::floor(date.unix());
  struct timespec moment {};
  moment.tv_sec = static_cast<time_t>(seconds);
  moment.tv_nsec = static_cast<long>((date.unix() - seconds) * 1e9);
  const struct timespec both[] = {moment, moment};
  if (utimensat(AT_FDCWD, realPath(path).c_str(), both, AT_SYMLINK_NOFOLLOW) != 0) {
    fail_("no modification date can be set for " + path);
  }
}

void Files::setCreationDate(const std::string& path, base::Date date) {
  const base::MutexLock lock(mutex_);
  creationDates_[normalized(path)] = date;
}

void Files::setFreeSize(const std::string& path, std::uint64_t bytes) {
  const base::MutexLock lock(mutex_);
  freeSizes_[volumeOf(normalized(path))] = bytes;
}

void Files::addVolume(const std::string& name) {
  if (!createDirectory("/Volumes/" + name)) fail_("no volume can be made of the name \"" + name + "\"");
}

void Files::removeVolume(const std::string& name) { remove("/Volumes/" + name); }

void Files::holdEnumerationAt(const std::string& path) {
  const base::MutexLock lock(mutex_);
  holdAt_ = path;
}

void Files::waitUntilEnumerationIsHeld() {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  const base::MutexLock lock(mutex_);
  while (!held_) {
    if (holdChanged_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) continue;
    return fail_("no enumeration came to where it would be held");
  }
}

void Files::releaseEnumeration() {
  const base::MutexLock lock(mutex_);
  holdAt_.reset();
  held_ = false;
  holdChanged_.notify_all();
}

void Files::waitWhileHeld(const std::string& path) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  const base::MutexLock lock(mutex_);
  if (holdAt_ != path) return;
  held_ = true;
  holdChanged_.notify_all();
  while (holdAt_ == path) {
    if (holdChanged_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) continue;
    return fail_("the enumeration that is held at " + path + " was never released");
  }
}

}  // namespace platform::fake
