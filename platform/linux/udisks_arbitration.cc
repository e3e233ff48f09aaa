#include "platform/linux/udisks_arbitration.h"

#include <QVariantMap>
#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/linux/block_names.h"
#include "platform/linux/udisks_bus.h"

namespace platform::freedesktop {
namespace {

constexpr double kSecondsForMountPoint = 5;

using ports::DiskCompletion;
using ports::DiskRef;
using ports::Dissenter;

const Dissenter kGone{ports::kDAReturnNotFound, "the disk is gone"};

QVariantMap optionsForUser(bool asksForPassword) {
  QVariantMap options;
  if (!asksForPassword) options.insert("auth.no_user_interaction", true);
  return options;
}

}  // namespace

struct UDisksArbitration::Present {
  UDisksDisk found;
  std::string name{};                     // of a volume: the wanted one, or that with a number
  std::optional<base::Date> arrivedAt{};  // known for what came since the daemon first told its disks
  std::shared_ptr<posix::FolderDisk> disk{};
  bool isAnnounced = false;
  bool wasAnnouncedMounted = false;
};

// A mount that the daemon has made and has not told of yet.
struct UDisksArbitration::Mounting {
  std::string block;
  DiskCompletion done;
};

UDisksArbitration::UDisksArbitration(const Surroundings& surroundings, Settings settings)
    : FolderDisks(surroundings.queue, [this] { return announced(); }),
      around_(surroundings),
      settings_(std::move(settings)),
      self_(std::make_shared<UDisksArbitration*>(this)),
      bus_(std::make_unique<UDisksBus>(
          UDisksBus::Place{settings_.busAddress, settings_.answersWithin}, [this] { reconcile(); },
          around_.log)) {
  bus_->reach();
}

UDisksArbitration::~UDisksArbitration() {
  for (const auto& present : present_) setMountPoint(*present, "");
}

void UDisksArbitration::later(std::function<void()> act) {
  around_.queue.post([self = std::weak_ptr(self_), act = std::move(act)] {
    if (self.lock()) act();
  });
}

DiskCompletion UDisksArbitration::completingLater(DiskCompletion done) {
  return [this, done = std::move(done)](const std::optional<Dissenter>& dissenter) {
    later([done, dissenter] { done(dissenter); });
  };
}

// --- what is there ---

void UDisksArbitration::reconcile() {
  auto found = disksOf(bus_->objects(), settings_.sysfs);
  const auto foundAs = [&found](const Present& present) {
    return std::ranges::find(found, present.found.bsdName, &UDisksDisk::bsdName);
  };
  // Departures first: they make names free.
  for (const auto& present : std::vector(present_)) {
    const auto now = foundAs(*present);
    if (now == found.end() || isReplaced(*present, *now)) depart(present);
  }
  for (auto& disk : found) {
    const auto known = std::ranges::find_if(
        present_, [&](const auto& present) { return present->found.bsdName == disk.bsdName; });
    if (known == present_.end()) {
      arrive(std::move(disk));
    } else {
      update(*known, std::move(disk));
    }
  }
  completeMounts();
}

// Whether what is there now has to be told as another disk.
bool UDisksArbitration::isReplaced(const Present& present, const UDisksDisk& now) const {
  return present.found.block != now.block || (!present.disk->isClaimed() && isRenewed(present, now));
}

bool UDisksArbitration::isRenewed(const Present& present, const UDisksDisk& now) const {
  const auto changes = [&](std::string_view key) {
    const auto* before = base::find<std::string>(present.found.description, key);
    const auto* after = base::find<std::string>(now.description, key);
    return (before ? *before : "") != (after ? *after : "");
  };
  const bool isFirstMount = present.isAnnounced && !present.wasAnnouncedMounted && !now.mountPoint.empty();
  return isFirstMount || present.found.wantedName != now.wantedName ||
         changes(ports::kDADiskDescriptionVolumeKindKey) || changes(ports::kDADiskDescriptionMediaUUIDKey);
}

void UDisksArbitration::arrive(UDisksDisk found) {
  const auto present = std::make_shared<Present>(Present{.found = std::move(found)});
  if (!present->found.whole) {
    present->name = freeName(present->found.wantedName, [this](const std::string& name) {
      return std::ranges::any_of(present_, [&](const auto& other) { return other->name == name; });
    });
  }
  present->arrivedAt = bus_->hasListed() ? std::optional(around_.dates.now()) : std::nullopt;
  present->disk = std::make_shared<posix::FolderDisk>(describe(present->found, *present));
  present_.push_back(present);
  setMountPoint(*present, present->found.mountPoint);
  if (!present->found.mountPoint.empty() || !present->found.shouldBeMounted) return announce(*present);
  around_.queue.postAfter(settings_.secondsUntilMounted,
                          [this, self = std::weak_ptr(self_), weak = std::weak_ptr(present)] {
                            const auto waiting = weak.lock();
                            if (self.lock() && waiting) mountUnlessMounted(waiting);
                          });
}

ports::DiskDescription UDisksArbitration::describe(const UDisksDisk& found, const Present& present) const {
  auto description = found.description;
  if (!found.whole) {
    description.insert_or_assign(std::string(ports::kDADiskDescriptionVolumeNameKey), present.name);
  }
  if (present.arrivedAt) {
    description.try_emplace(std::string(ports::kDAAppearanceTimeKey),
                            present.arrivedAt->secondsSinceReferenceDate);
  }
  return description;
}

void UDisksArbitration::update(const PresentRef& present, UDisksDisk now) {
  setMountPoint(*present, now.mountPoint);
  if (!now.mountPoint.empty()) announce(*present);
  if (isRenewed(*present, now)) return;  // once it is unclaimed
  present->disk->description = describe(now, *present);
  present->found = std::move(now);
}

void UDisksArbitration::setMountPoint(Present& present, const std::string& mountPoint) {
  const bool isMounted = !mountPoint.empty();
  if (isMounted) around_.paths.setVolume(present.name, mountPoint);
  if (!isMounted && !present.found.mountPoint.empty()) around_.paths.removeVolume(present.name);
  present.found.mountPoint = mountPoint;
  present.disk->setFolder(mountPoint);
}

void UDisksArbitration::announce(Present& present) {
  if (std::exchange(present.isAnnounced, true)) return;
  present.wasAnnouncedMounted = !present.found.mountPoint.empty();
  sessions_.tell();
}

void UDisksArbitration::depart(const PresentRef& present) {
  setMountPoint(*present, "");
  std::erase(present_, present);
  sessions_.tell();
}

void UDisksArbitration::mountUnlessMounted(const PresentRef& present) {
  if (!isPresent(present) || present->isAnnounced) return;
  mountNow(present, false, [this, present](const std::optional<Dissenter>& dissenter) {
    if (dissenter) {
      around_.log.log("[Stashwick] mounting \"" + present->name + "\": " + dissenter->statusString);
    }
    announce(*present);
  });
}

UDisksArbitration::PresentRef UDisksArbitration::presentOf(const DiskRef& disk) const {
  const auto found =
      std::ranges::find_if(present_, [&](const auto& present) { return present->disk == disk; });
  return !disk || found == present_.end() ? nullptr : *found;
}

bool UDisksArbitration::isPresent(const PresentRef& present) const {
  return std::ranges::find(present_, present) != present_.end();
}

std::vector<DiskRef> UDisksArbitration::announced() const {
  std::vector<DiskRef> disks;
  for (const auto& present : present_) {
    if (present->isAnnounced) disks.push_back(present->disk);
  }
  return disks;
}

// --- what clients ask for ---

std::unique_ptr<ports::DiskSession> UDisksArbitration::createSession(ports::DiskSessionCallbacks callbacks) {
  return bus_->reach() ? FolderDisks::createSession(std::move(callbacks)) : nullptr;
}

void UDisksArbitration::unclaim(const DiskRef& disk) {
  FolderDisks::unclaim(disk);
  later([this] { reconcile(); });
}

void UDisksArbitration::mount(const DiskRef& disk, DiskCompletion done) {
  later([this, disk, done = std::move(done)] {
    const auto present = presentOf(disk);
    if (!present) return done(kGone);
    mountNow(present, true, completingLater(done));
  });
}

void UDisksArbitration::unmount(const DiskRef& disk, DiskCompletion done) {
  later([this, disk, done = std::move(done)] {
    const auto present = presentOf(disk);
    if (!present) return done(kGone);
    unmountNow(present, completingLater(done));
  });
}

void UDisksArbitration::eject(const DiskRef& disk, DiskCompletion done) {
  later([this, disk, done = std::move(done)] {
    const auto present = presentOf(disk);
    if (!present) return done(kGone);
    ejectNow(present, completingLater(done));
  });
}

void UDisksArbitration::mountNow(const PresentRef& present, bool asksForPassword,
                                 const DiskCompletion& done) {
  if (present->found.whole) return done(Dissenter{ports::kDAReturnUnsupported, "there is no volume on it"});
  if (!present->found.mountPoint.empty())
    return done(Dissenter{ports::kDAReturnBusy, "it is mounted already"});
  bus_->call(present->found.block, "Filesystem", "Mount", {optionsForUser(asksForPassword)},
             settings_.actsWithin, [this, block = present->found.block, done](const UDisksBus::Reply& reply) {
               if (reply.dissenter) return done(reply.dissenter);
               completeOnceMounted(block, done);
             });
}

// The daemon answers before, or after, it tells of the mount point.
void UDisksArbitration::completeOnceMounted(const std::string& block, const DiskCompletion& done) {
  const auto mounting = std::make_shared<Mounting>(Mounting{block, done});
  mounting_.push_back(mounting);
  completeMounts();
  around_.queue.postAfter(kSecondsForMountPoint,
                          [this, self = std::weak_ptr(self_), weak = std::weak_ptr(mounting)] {
                            const auto waiting = weak.lock();
                            if (self.lock() && waiting) complete(waiting);
                          });
}

void UDisksArbitration::completeMounts() {
  for (const auto& mounting : std::vector(mounting_)) {
    const auto* fileSystem = bus_->objects().find(mounting->block, "Filesystem");
    if (fileSystem == nullptr || !firstTextOf(*fileSystem, "MountPoints").empty()) complete(mounting);
  }
}

void UDisksArbitration::complete(const std::shared_ptr<Mounting>& mounting) {
  if (std::erase(mounting_, mounting) > 0) mounting->done(std::nullopt);
}

void UDisksArbitration::unmountNow(const PresentRef& present, const DiskCompletion& done) {
  if (present->found.mountPoint.empty())
    return done(Dissenter{ports::kDAReturnNotMounted, "it is not mounted"});
  if (auto dissenter = sessions_.askForUnmount(present->disk)) return done(dissenter);
  if (!isPresent(present)) return done(kGone);
  bus_->call(present->found.block, "Filesystem", "Unmount", {optionsForUser(true)}, settings_.actsWithin,
             [this, block = present->found.block, done](const UDisksBus::Reply& reply) {
               if (!reply.dissenter) bus_->noteUnmounted(block);
               reconcile();
               done(reply.dissenter);
             });
}

void UDisksArbitration::ejectNow(const PresentRef& present, const DiskCompletion& done) {
  const auto* drive = bus_->objects().find(present->found.drive, "Drive");
  if (drive == nullptr || !flagOf(*drive, "Ejectable")) {
    return done(Dissenter{ports::kDAReturnUnsupported, "its drive cannot eject it"});
  }
  if (!present->found.mountPoint.empty()) {
    return unmountNow(present, [this, present, done](const std::optional<Dissenter>& dissenter) {
      if (dissenter || !isPresent(present)) return done(dissenter ? dissenter : kGone);
      ejectNow(present, done);
    });
  }
  bus_->call(present->found.drive, "Drive", "Eject", {optionsForUser(true)}, settings_.actsWithin,
             [done](const UDisksBus::Reply& reply) { done(reply.dissenter); });
}

void UDisksArbitration::rename(const DiskRef& disk, const std::string& name) {
  later([this, disk, name] {
    const auto failed = [this, name](const std::string& reason) {
      around_.log.log("[Stashwick] renaming a volume to \"" + name + "\": " + reason);
    };
    const auto present = presentOf(disk);
    if (!present) return failed(kGone.statusString);
    if (present->found.whole) return failed("there is no volume on it");
    if (!posix::PathMap::isVolumeName(name)) return failed("a volume cannot have this name");
    bus_->call(present->found.block, "Filesystem", "SetLabel",
               {QString::fromStdString(name), optionsForUser(true)}, settings_.actsWithin,
               [failed](const UDisksBus::Reply& reply) {
                 if (reply.dissenter) failed(reply.dissenter->statusString);
               });
  });
}

}  // namespace platform::freedesktop
