#include "platform/embedded/embedded_disks.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <utility>

#include "platform/posix/file_stamp.h"
#include "platform/posix/system_error.h"

namespace platform::embedded {
namespace {

using base::PropertyList;
using ports::DiskRef;

constexpr std::string_view kVolumes = "/Volumes/";
constexpr double kStampStep = 64;  // seconds
constexpr int kFirstNumber = 2;    // disk0 and disk1 are the machine's own
constexpr std::uint32_t kFolderEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                                        IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;

std::string logLine(const base::Error& error) { return "[Stashwick] " + error.message; }

base::Result<std::string> realFolder(const std::string& folder) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(folder.c_str(), nullptr), &std::free);
  if (!real) return posix::errorFromErrno("\"" + folder + "\"");
  if (!identifyFolder(real.get())) return base::Error{"\"" + folder + "\": it is not a folder"};
  return std::string(real.get());
}

// As it was typed, where that is a name at all; "." and ".." stand for the folder that they lead to.
std::string nameOfFolder(std::string typed, const std::string& real) {
  while (typed.size() > 1 && typed.ends_with('/')) typed.pop_back();
  const std::string name = std::filesystem::path(typed).filename();
  return name.empty() || name == "." || name == ".." ? std::filesystem::path(real).filename().string() : name;
}

std::string parentOf(const std::string& path) { return std::filesystem::path(path).parent_path(); }

ports::Dissenter dissenterFromErrno(int number) {
  const auto status = [number] {
    switch (number) {
      case EBUSY:
        return ports::kDAReturnBusy;
      case EPERM:
        return ports::kDAReturnNotPrivileged;
      case EACCES:
        return ports::kDAReturnNotPermitted;
      case EINVAL:
        return ports::kDAReturnNotMounted;
      case ENOENT:
        return ports::kDAReturnNotFound;
      case ENOMEM:
        return ports::kDAReturnNoResources;
      default:
        return ports::kDAReturnError;
    }
  }();
  return {status, posix::errnoText(number)};
}

}  // namespace

class EmbeddedDisks::Volume : public posix::FolderDisk {
 public:
  Volume(Place volumePlace, FolderIdentity folderIdentity, ports::DiskDescription described)
      : FolderDisk(std::move(described), volumePlace.path),
        place(std::move(volumePlace)),
        identity(folderIdentity) {}

  const Place place;
  const FolderIdentity identity;
};

// A folder that is taken as a volume. There is no disk while it is being measured.
struct EmbeddedDisks::Present {
  Place place;
  FolderIdentity identity;
  int number = 0;                   // of its BSD name
  PropertyList appearance{};        // seconds since the reference date
  std::string name{};               // of the volume; empty: it has none, and no path
  ports::DiskDescription folder{};  // once measured
  ports::DiskDescription overrides{};
  posix::FileStamp sideFile{};
  DiskRef disk{};
  Arrival arrival{};
};

EmbeddedDisks::EmbeddedDisks(const Surroundings& surroundings)
    : FolderDisks(surroundings.loop, [this] { return announced(); }),
      around_(surroundings),
      self_(std::make_shared<EmbeddedDisks*>(this)),
      inotify_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      mountTable_(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)),
      mountTableChanges_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (inotify_) {
    inotifyWatch_ = around_.loop.watch(inotify_.get(), [this] { readInotify(); });
  } else {
    around_.log.log(logLine(posix::errorFromErrno("watching folders")));
  }
  // The table is always readable; only its changes count, and epoll is what tells them apart.
  epoll_event changes{.events = EPOLLPRI, .data = {}};
  if (::epoll_ctl(mountTableChanges_.get(), EPOLL_CTL_ADD, mountTable_.get(), &changes) == 0) {
    mountsWatch_ = around_.loop.watch(mountTableChanges_.get(), [this] {
      epoll_event seen{};
      ::epoll_wait(mountTableChanges_.get(), &seen, 1, 0);
      rescan();
    });
  } else {
    around_.log.log(logLine(posix::errorFromErrno("watching mounts")));
  }
}

EmbeddedDisks::~EmbeddedDisks() {
  stopsMeasuring_ = true;
  measuring_.close();
  for (const auto& present : present_) around_.paths.removeVolume(present->name);
}

void EmbeddedDisks::later(std::function<void()> act) {
  around_.loop.post([self = std::weak_ptr(self_), act = std::move(act)] {
    if (self.lock()) act();
  });
}

// --- what the kernel tells ---

base::Result<void> EmbeddedDisks::watchVolumesFolder(const std::string& folder) {
  auto real = realFolder(folder);
  if (!real) return real.error();
  if (::inotify_add_watch(inotify_.get(), real->c_str(), kFolderEvents) < 0) {
    return posix::errorFromErrno("watching \"" + folder + "\"");
  }
  volumesFolder_ = *real;
  atStart_ = true;
  rescan();
  atStart_ = false;
  return {};
}

void EmbeddedDisks::readInotify() {
  alignas(inotify_event) std::array<char, 16384> buffer;
  bool changed = false;
  for (ssize_t size; (size = ::read(inotify_.get(), buffer.data(), buffer.size())) > 0;) {
    for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      const std::string_view name(buffer.data() + at + sizeof event, event.len);
      changed |= concernsVolumes(event, name.substr(0, name.find('\0')));
      at += sizeof event + event.len;
    }
  }
  if (changed) rescan();
}

bool EmbeddedDisks::concernsVolumes(const inotify_event& event, std::string_view name) const {
  if (event.len == 0) return true;  // a watched folder itself, or too many events to be told singly
  // A file beside a folder counts once it is written.
  if ((event.mask & IN_CREATE) != 0 && (event.mask & IN_ISDIR) == 0) return false;
  return event.wd == volumesFolderWatch_ || std::ranges::any_of(attached_, [name](const Place& place) {
           return std::filesystem::path(place.path).filename() == name;
         });
}

base::Result<EmbeddedDisks::Place> EmbeddedDisks::placeToAttach(const std::string& folder) {
  auto real = realFolder(folder);
  if (!real) return real.error();
  Place place{*real, nameOfFolder(folder, *real), true};
  if (posix::PathMap::isVolumeName(place.name)) return place;
  return base::Error{"\"" + folder + "\": a volume cannot have this name"};
}

base::Result<void> EmbeddedDisks::checkFolder(const std::string& folder) {
  const auto place = placeToAttach(folder);
  return place ? base::Result<void>() : place.error();
}

base::Result<void> EmbeddedDisks::attach(const std::string& folder, Arrival arrival) {
  const auto place = placeToAttach(folder);
  if (!place) return place.error();
  const std::string& path = place->path;
  // A folder tells of its own end only once nobody holds it open, so its parent is watched as well; one of
  // the two may be unreadable.
  ::inotify_add_watch(inotify_.get(), path.c_str(), IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD);
  ::inotify_add_watch(inotify_.get(), parentOf(path).c_str(), kFolderEvents);
  if (const auto present = presentAt(path)) depart(present);
  std::erase_if(attached_, [&](const Place& known) { return known.path == path; });
  hidden_.erase(path);
  attached_.push_back(*place);
  rescan();
  if (const auto present = presentAt(path)) {
    present->arrival = std::move(arrival);
  } else if (arrival) {
    later([arrival = std::move(arrival)] { arrival(false); });
  }
  return {};
}

std::vector<EmbeddedDisks::Place> EmbeddedDisks::places() {
  std::vector<Place> found = attached_;
  if (!volumesFolder_) return found;
  // Again each time: something may have been mounted over the folder.
  volumesFolderWatch_ = ::inotify_add_watch(inotify_.get(), volumesFolder_->c_str(), kFolderEvents);
  std::error_code error;
  std::set<std::string> names;
  for (std::filesystem::directory_iterator entry(*volumesFolder_, error), end; !error && entry != end;
       entry.increment(error)) {
    names.insert(entry->path().filename());
  }
  if (error) {
    around_.log.log(logLine({"volumes folder \"" + *volumesFolder_ + "\": " + error.message()}));
    volumesFolder_.reset();
    return found;
  }
  for (const auto& name : names) {
    const std::string path = *volumesFolder_ + "/" + name;
    if (std::ranges::none_of(attached_, [&](const Place& place) { return place.path == path; })) {
      found.push_back({path, name});
    }
  }
  return found;
}

void EmbeddedDisks::rescan() {
  std::erase_if(hidden_, [](const auto& hidden) { return identifyFolder(hidden.first) != hidden.second; });
  const auto departed = removeDeparted();
  for (const auto& place : places()) {
    if (!presentAt(place.path) && !hidden_.contains(place.path)) takeArrived(place, departed);
  }
  for (const auto& present : std::vector(present_)) rereadSideFile(present);
}

std::vector<EmbeddedDisks::PresentRef> EmbeddedDisks::removeDeparted() {
  std::vector<PresentRef> departed;
  for (const auto& present : std::vector(present_)) {
    const auto now = identifyFolder(present->place.path);
    if (now == present->identity) continue;
    departed.push_back(present);
    depart(present);
    const bool wasMounted = present->identity.isMountPoint;
    if (now && wasMounted && !now->isMountPoint) hidden_[present->place.path] = *now;
    if (now && !wasMounted && !now->isMountPoint) {
      std::erase_if(attached_, [&](const Place& place) { return place.path == present->place.path; });
    }
  }
  std::erase_if(attached_, [](const Place& place) { return !identifyFolder(place.path); });
  return departed;
}

void EmbeddedDisks::takeArrived(const Place& place, const std::vector<PresentRef>& departed) {
  const auto identity = identifyFolder(place.path);
  if (!identity) return;
  const auto present = std::make_shared<Present>();
  present->place = place;
  present->identity = *identity;
  const auto renamed =
      std::ranges::find_if(departed, [&](const auto& gone) { return gone->identity == identity; });
  if (renamed != departed.end()) {
    present->number = (*renamed)->number;
    present->appearance = (*renamed)->appearance;
    present->folder = (*renamed)->folder;
  } else {
    present->number = freeNumber();
    present->appearance = stampNow();
  }
  readSideFile(*present);
  arrive(present);
}

void EmbeddedDisks::readSideFile(Present& present) {
  if (parentOf(present.place.path) != volumesFolder_) return;
  const std::string file = present.place.path + ".plist";
  std::error_code none;
  present.sideFile = posix::FileStamp::of(file);
  present.overrides.clear();
  if (!std::filesystem::is_regular_file(file, none)) return;
  present.overrides = around_.archives.dictionaryWithContentsOfFile(file).value_or(ports::DiskDescription{});
}

void EmbeddedDisks::rereadSideFile(const PresentRef& present) {
  if (parentOf(present->place.path) != volumesFolder_) return;
  if (present->sideFile == posix::FileStamp::of(present->place.path + ".plist")) return;
  const auto changed = std::make_shared<Present>(Present{.place = present->place,
                                                         .identity = present->identity,
                                                         .number = present->number,
                                                         .appearance = present->appearance,
                                                         .folder = present->folder});
  readSideFile(*changed);
  if (changed->overrides == present->overrides) {
    present->sideFile = changed->sideFile;
    return;
  }
  changed->arrival = std::exchange(present->arrival, {});
  depart(present);
  arrive(changed);
}

// --- arrivals and departures ---

// A side file can take a volume's name away, which leaves it without a path; a folder's own name has to do.
std::string EmbeddedDisks::wantedName(const Present& present) const {
  const auto entry = present.overrides.find(ports::kDADiskDescriptionVolumeNameKey);
  if (entry == present.overrides.end()) return present.place.name;
  const auto* name = entry->second.as<std::string>();
  return name && posix::PathMap::isVolumeName(*name) ? *name : std::string();
}

void EmbeddedDisks::arrive(const PresentRef& present) {
  if (!posix::PathMap::isVolumeName(present->place.name)) {
    around_.log.log(logLine({"\"" + present->place.path + "\": a volume cannot have this name"}));
    hidden_[present->place.path] = present->identity;
    return;
  }
  if (const auto wanted = wantedName(*present); !wanted.empty()) {
    present->name = freeName(wanted);
    around_.paths.setVolume(present->name, present->place.path);
  }
  if (!present->identity.isMountPoint && !present->name.empty()) {
    const base::MutexLock lock(plainMutex_);
    plainFolders_.insert(present->name);
  }
  present_.push_back(present);
  if (present->folder.empty()) {
    measure(present);
  } else {
    announce(present);
  }
}

// On a thread of its own: a large folder takes a while to walk.
void EmbeddedDisks::measure(const PresentRef& present) {
  measuring_.addOperation([this, path = present->place.path, weakPresent = std::weak_ptr(present)] {
    auto folder = describeFolder(path, around_.files, [this] { return stopsMeasuring_.load(); });
    later([this, weakPresent, folder = std::move(folder)] {
      const auto measured = weakPresent.lock();
      if (!measured || std::ranges::find(present_, measured) == present_.end()) return;
      if (!folder) return depart(measured);
      measured->folder = *folder;
      announce(measured);
    });
  });
}

void EmbeddedDisks::announce(const PresentRef& present) {
  ports::DiskDescription description = present->folder;
  for (const auto& [key, value] : present->overrides) description.insert_or_assign(key, value);
  description.insert_or_assign(std::string(ports::kDADiskDescriptionVolumeNameKey), present->name);
  description.try_emplace(std::string(ports::kDADiskDescriptionMediaBSDNameKey),
                          "disk" + std::to_string(present->number) + "s1");
  description.try_emplace(std::string(ports::kDAAppearanceTimeKey), present->appearance);
  present->disk = std::make_shared<Volume>(present->place, present->identity, std::move(description));
  tellSessions();
}

void EmbeddedDisks::depart(const PresentRef& present) {
  std::erase(present_, present);
  around_.paths.removeVolume(present->name);
  {
    const base::MutexLock lock(plainMutex_);
    plainFolders_.erase(present->name);
  }
  if (present->disk) static_cast<Volume&>(*present->disk).setFolder("");
  if (present->arrival) later([arrival = std::exchange(present->arrival, {})] { arrival(false); });
  tellSessions();
}

EmbeddedDisks::PresentRef EmbeddedDisks::presentAt(const std::string& path) const {
  const auto found =
      std::ranges::find_if(present_, [&](const auto& present) { return present->place.path == path; });
  return found == present_.end() ? nullptr : *found;
}

EmbeddedDisks::PresentRef EmbeddedDisks::presentOf(const DiskRef& disk) const {
  const auto found =
      std::ranges::find_if(present_, [&](const auto& present) { return present->disk == disk; });
  return !disk || found == present_.end() ? nullptr : *found;
}

std::string EmbeddedDisks::freeName(const std::string& wanted) const {
  const auto isTaken = [this](const std::string& name) {
    return std::ranges::any_of(present_, [&](const auto& present) { return present->name == name; });
  };
  std::string name = wanted;
  for (int count = 1; isTaken(name); ++count) name = wanted + " " + std::to_string(count);
  return name;
}

int EmbeddedDisks::freeNumber() const {
  int number = kFirstNumber;
  const auto isTaken = [&] {
    return std::ranges::any_of(present_, [&](const auto& present) { return present->number == number; });
  };
  while (isTaken()) ++number;
  return number;
}

PropertyList EmbeddedDisks::stampNow() const {
  const double step = std::floor(around_.dates.now().secondsSinceReferenceDate / kStampStep);
  return PropertyList((atStart_ ? step : step + 1) * kStampStep);
}

bool EmbeddedDisks::isPlainFolder(std::string_view logicalPath) const {
  if (!logicalPath.starts_with(kVolumes)) return false;
  const base::MutexLock lock(plainMutex_);
  return plainFolders_.contains(logicalPath.substr(kVolumes.size()));
}

// --- sessions ---

std::vector<DiskRef> EmbeddedDisks::announced() const {
  std::vector<DiskRef> disks;
  for (const auto& present : present_) {
    if (present->disk) disks.push_back(present->disk);
  }
  return disks;
}

void EmbeddedDisks::tellSessions() {
  sessions_.tell();
  later([this] {
    for (const auto& present : std::vector(present_)) {
      if (!present->disk) continue;
      if (const auto arrival = std::exchange(present->arrival, {})) arrival(true);
    }
  });
}

// --- what clients ask for ---

void EmbeddedDisks::mount(const DiskRef& disk, ports::DiskCompletion done) {
  later([this, disk, done = std::move(done)] { done(mountNow(disk)); });
}

void EmbeddedDisks::unmount(const DiskRef& disk, ports::DiskCompletion done) {
  later([this, disk, done = std::move(done)] { done(unmountNow(disk)); });
}

void EmbeddedDisks::eject(const DiskRef& disk, ports::DiskCompletion done) { unmount(disk, std::move(done)); }

std::optional<ports::Dissenter> EmbeddedDisks::mountNow(const DiskRef& disk) {
  if (!disk) return ports::Dissenter{ports::kDAReturnBadArgument, "no disk was given"};
  if (presentOf(disk)) return ports::Dissenter{ports::kDAReturnBusy, "it is mounted already"};
  const auto& volume = static_cast<const Volume&>(*disk);
  const auto identity = identifyFolder(volume.place.path);
  if (!identity) return ports::Dissenter{ports::kDAReturnNotFound, "the folder is gone"};
  if (identity != volume.identity || identity->isMountPoint) {
    return ports::Dissenter{ports::kDAReturnUnsupported, "only the system can mount it"};
  }
  hidden_.erase(volume.place.path);
  if (volume.place.attached && !presentAt(volume.place.path)) attached_.push_back(volume.place);
  rescan();
  return std::nullopt;
}

std::optional<ports::Dissenter> EmbeddedDisks::unmountNow(const DiskRef& disk) {
  if (!presentOf(disk)) return ports::Dissenter{ports::kDAReturnNotMounted, "it is not mounted"};
  if (auto dissenter = sessions_.askForUnmount(disk)) return dissenter;
  const auto present = presentOf(disk);
  if (!present) return std::nullopt;
  const Place place = present->place;
  if (present->identity.isMountPoint) {
    if (::umount2(place.path.c_str(), UMOUNT_NOFOLLOW) != 0) return dissenterFromErrno(errno);
    rescan();
    return std::nullopt;
  }
  hidden_[place.path] = present->identity;
  std::erase_if(attached_, [&](const Place& attached) { return attached.path == place.path; });
  depart(present);
  return std::nullopt;
}

void EmbeddedDisks::rename(const DiskRef& disk, const std::string& name) {
  const auto present = presentOf(disk);
  const std::string doing = "renaming a volume to \"" + name + "\"";
  if (!present) return around_.log.log(logLine({doing + ": it is gone"}));
  if (!posix::PathMap::isVolumeName(name)) {
    return around_.log.log(logLine({doing + ": a volume cannot have this name"}));
  }
  const std::string from = present->place.path;
  const std::string to = (parentOf(from) == "/" ? "" : parentOf(from)) + "/" + name;
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
    return around_.log.log(logLine(posix::errorFromErrno(doing)));
  }
  for (auto& place : attached_) {
    if (place.path == from) place = {to, name, true};
  }
  rescan();
}

}  // namespace platform::embedded
