#include "platform/fake/disks.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <set>
#include <utility>

namespace platform::fake {

class Disks::Disk : public ports::Disk {
 public:
  explicit Disk(ports::DiskDescription given, int plugNumber)
      : description(std::move(given)), number(plugNumber) {}

  // Where the volume's contents are while it is not mounted.
  std::string unmountedPath() const { return "/.unmounted/" + std::to_string(number); }

  ports::DiskDescription description;
  const int number;
  std::string mountedAt;  // empty: not mounted
  std::uint64_t freeSize = 0;
  bool ejected = false;
  int claims = 0;
};

struct Disks::SessionState {
  ports::DiskSessionCallbacks callbacks;
  bool alive = true;
  std::set<const ports::Disk*> reported = {};
};

class Disks::Session : public ports::DiskSession {
 public:
  explicit Session(SessionRef state) : state_(std::move(state)) {}
  ~Session() override { state_->alive = false; }

 private:
  SessionRef state_;
};

namespace {

bool isVolumeName(const std::string& name) {
  const auto forbidden = [](char c) { return c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  return !name.empty() && name != "." && name != ".." && std::ranges::none_of(name, forbidden);
}

std::string volumeName(const ports::DiskDescription& description) {
  const auto* name = base::find<std::string>(description, ports::kDADiskDescriptionVolumeNameKey);
  return name == nullptr ? std::string() : *name;
}

bool isMountable(const ports::DiskDescription& description) {
  const auto* mountable = base::find<bool>(description, ports::kDADiskDescriptionVolumeMountableKey);
  return (mountable == nullptr || *mountable) && isVolumeName(volumeName(description));
}

ports::Dissenter refusal(ports::DAReturn status, std::string text) { return {status, std::move(text)}; }

}  // namespace

Disks::Disks(MainQueue& mainQueue, Files& files, Clock& clock, Changes& changes, Failure& fail)
    : mainQueue_(mainQueue), files_(files), clock_(clock), changes_(changes), fail_(fail) {}

Disks::~Disks() = default;

std::unique_ptr<ports::DiskSession> Disks::createSession(ports::DiskSessionCallbacks callbacks) {
  mustBeOnMainThread("createSession");
  if (sessionsFail_) return nullptr;
  const auto session = std::make_shared<SessionState>(SessionState{.callbacks = std::move(callbacks)});
  std::erase_if(sessions_, [](const auto& reference) { return reference.expired(); });
  sessions_.push_back(session);
  later([this, session] {
    for (const auto& disk : std::vector(present_)) reportArrival(session, disk);
  });
  return std::make_unique<Session>(session);
}

ports::DiskDescription Disks::copyDescription(const ports::DiskRef& disk) {
  mustBeOnMainThread("copyDescription");
  return stateOf(disk).description;
}

void Disks::claim(const ports::DiskRef& disk) {
  {
    const base::MutexLock lock(claimsMutex_);
    ++stateOf(disk).claims;
  }
  changes_.note();
}

void Disks::unclaim(const ports::DiskRef& disk) {
  {
    const base::MutexLock lock(claimsMutex_);
    auto& claims = stateOf(disk).claims;
    if (claims > 0) --claims;
  }
  changes_.note();
}

void Disks::mount(const ports::DiskRef& disk, ports::DiskCompletion done) {
  mustBeOnMainThread("mount");
  later([this, disk, done = std::move(done)] { done(mountNow(disk)); });
}

void Disks::unmount(const ports::DiskRef& disk, ports::DiskCompletion done) {
  mustBeOnMainThread("unmount");
  later([this, disk, done = std::move(done)] { done(unmountNow(disk)); });
}

void Disks::eject(const ports::DiskRef& disk, ports::DiskCompletion done) {
  mustBeOnMainThread("eject");
  later([this, disk, done = std::move(done)] { done(ejectNow(disk)); });
}

void Disks::rename(const ports::DiskRef& disk, const std::string& name) {
  mustBeOnMainThread("rename");
  later([this, disk, name] {
    if (!isPresent(disk) || !isVolumeName(name)) return;
    auto& state = stateOf(disk);
    const bool mounted = isMounted(disk);
    if (mounted) detachVolume(state);
    state.description.insert_or_assign(std::string(ports::kDADiskDescriptionVolumeNameKey), name);
    if (mounted) attachVolume(state);
  });
}

ports::DiskRef Disks::diskFromVolumePath(const base::FileURL& volume) {
  mustBeOnMainThread("diskFromVolumePath");
  const auto at = std::ranges::find_if(
      present_, [&](const auto& disk) { return isMounted(disk) && stateOf(disk).mountedAt == volume.path; });
  return at == present_.end() ? nullptr : *at;
}

ports::DiskDescription Disks::usbPartition(const std::string& name) {
  const int number = ++described_;
  char uuid[37];
  std::snprintf(uuid, sizeof uuid, "5A17C0DE-0000-4000-8000-%012X", static_cast<unsigned>(number));
  ports::DiskDescription description;
  const auto put = [&](std::string_view key, base::PropertyList value) {
    description.insert_or_assign(std::string(key), std::move(value));
  };
  put(ports::kDADiskDescriptionVolumeNameKey, name);
  put(ports::kDADiskDescriptionVolumeKindKey, "msdos");
  put(ports::kDADiskDescriptionVolumeMountableKey, true);
  put(ports::kDADiskDescriptionMediaBSDNameKey, "disk" + std::to_string(number + 1) + "s1");
  put(ports::kDADiskDescriptionMediaEjectableKey, true);
  put(ports::kDADiskDescriptionMediaIconKey, "Removable.icns");
  put(ports::kDADiskDescriptionMediaSizeKey, std::int64_t{2'000'000'000});
  put(ports::kDADiskDescriptionMediaUUIDKey, uuid);
  put(ports::kDADiskDescriptionMediaWholeKey, false);
  put(ports::kDADiskDescriptionMediaWritableKey, true);
  put(ports::kDADiskDescriptionDeviceInternalKey, false);
  put(ports::kDADiskDescriptionDeviceProtocolKey, "USB");
  put(ports::kDADiskDescriptionDeviceVendorKey, "Example");
  put(ports::kDAAppearanceTimeKey, clock_.now().secondsSinceReferenceDate);
  return description;
}

ports::DiskRef Disks::plug(ports::DiskDescription description) {
  const auto disk = std::make_shared<Disk>(std::move(description), ++plugged_);
  const auto size = base::findNumber(disk->description, ports::kDADiskDescriptionMediaSizeKey);
  disk->freeSize = static_cast<std::uint64_t>(size.value_or(0) / 2);
  present_.push_back(disk);
  if (isMountable(disk->description)) {
    files_.createDirectory(disk->unmountedPath());
    attachVolume(*disk);
  }
  tellSessions(&Disks::reportArrival, disk);
  return disk;
}

void Disks::pull(const ports::DiskRef& disk) {
  if (!isPresent(disk)) return fail_("a disk is pulled that is not plugged");
  remove(disk);
}

void Disks::changeDescription(const ports::DiskRef& disk, const ports::DiskDescription& entries) {
  for (const auto& [key, value] : entries) stateOf(disk).description.insert_or_assign(key, value);
}

std::optional<ports::Dissenter> Disks::requestUnmountByOther(const ports::DiskRef& disk) {
  struct Answer {
    bool given = false;
    std::optional<ports::Dissenter> dissenter;
  };
  const auto answer = std::make_shared<Answer>();
  later([this, disk, answer] { *answer = {true, unmountNow(disk)}; });
  mainQueue_.run();
  if (!answer->given) fail_("an unmount cannot be asked for while the main queue is held up");
  return answer->dissenter;
}

bool Disks::isPresent(const ports::DiskRef& disk) const {
  return std::ranges::find(present_, disk) != present_.end();
}

bool Disks::isMounted(const ports::DiskRef& disk) const { return !stateOf(disk).mountedAt.empty(); }

bool Disks::isEjected(const ports::DiskRef& disk) const { return stateOf(disk).ejected; }

int Disks::claims(const ports::DiskRef& disk) const {
  const base::MutexLock lock(claimsMutex_);
  return stateOf(disk).claims;
}

std::optional<std::string> Disks::volumePath(const ports::DiskRef& disk) const {
  if (!isMounted(disk)) return std::nullopt;
  return stateOf(disk).mountedAt;
}

Disks::Disk& Disks::stateOf(const ports::DiskRef& disk) { return dynamic_cast<Disk&>(*disk); }

void Disks::mustBeOnMainThread(const char* call) const {
  if (!mainQueue_.isMainThread())
    fail_(std::string(call) + " of a disk comes from another thread than the main one");
}

std::vector<Disks::SessionRef> Disks::liveSessions() const {
  std::vector<SessionRef> live;
  for (const auto& reference : sessions_) {
    const auto session = reference.lock();
    if (session && session->alive) live.push_back(session);
  }
  return live;
}

void Disks::tellSessions(void (Disks::*report)(const SessionRef&, const ports::DiskRef&),
                         const ports::DiskRef& disk) {
  for (const auto& session : liveSessions()) later([=, this] { (this->*report)(session, disk); });
}

void Disks::reportArrival(const SessionRef& session, const ports::DiskRef& disk) {
  if (!session->alive || !session->reported.insert(disk.get()).second) return;
  if (session->callbacks.appeared) session->callbacks.appeared(disk);
}

void Disks::reportDeparture(const SessionRef& session, const ports::DiskRef& disk) {
  if (!session->alive || session->reported.erase(disk.get()) == 0) return;
  if (session->callbacks.disappeared) session->callbacks.disappeared(disk);
}

std::optional<ports::Dissenter> Disks::takeRefusal() {
  if (refusals_.empty()) return std::nullopt;
  auto first = std::move(refusals_.front());
  refusals_.pop_front();
  return first;
}

std::optional<ports::Dissenter> Disks::askSessions(const ports::DiskRef& disk) {
  std::optional<ports::Dissenter> first;
  for (const auto& session : liveSessions()) {
    if (!session->alive || !session->callbacks.approveUnmount) continue;
    auto dissenter = session->callbacks.approveUnmount(disk);
    if (dissenter && !first) first = std::move(dissenter);
  }
  return first;
}

std::optional<ports::Dissenter> Disks::mountNow(const ports::DiskRef& disk) {
  if (!isPresent(disk)) return refusal(ports::kDAReturnNotFound, "The disk is gone.");
  if (isMounted(disk)) return refusal(ports::kDAReturnBusy, "The volume is mounted already.");
  auto& state = stateOf(disk);
  if (!isMountable(state.description))
    return refusal(ports::kDAReturnUnsupported, "There is no volume to mount.");
  if (auto refused = takeRefusal()) return refused;
  attachVolume(state);
  return std::nullopt;
}

std::optional<ports::Dissenter> Disks::unmountNow(const ports::DiskRef& disk) {
  if (!isPresent(disk)) return refusal(ports::kDAReturnNotFound, "The disk is gone.");
  if (!isMounted(disk)) return refusal(ports::kDAReturnNotMounted, "The volume is not mounted.");
  if (auto refused = askSessions(disk)) return refused;
  if (auto refused = takeRefusal()) return refused;
  detachVolume(stateOf(disk));
  return std::nullopt;
}

std::optional<ports::Dissenter> Disks::ejectNow(const ports::DiskRef& disk) {
  if (!isPresent(disk)) return refusal(ports::kDAReturnNotFound, "The disk is gone.");
  if (isMounted(disk)) {
    if (auto refused = unmountNow(disk)) return refused;
  } else if (auto refused = takeRefusal()) {
    return refused;
  }
  stateOf(disk).ejected = true;
  remove(disk);
  return std::nullopt;
}

void Disks::remove(const ports::DiskRef& disk) {
  std::erase(present_, disk);
  if (isMounted(disk)) detachVolume(stateOf(disk));
  tellSessions(&Disks::reportDeparture, disk);
}

void Disks::attachVolume(Disk& disk) {
  const std::string wanted = "/Volumes/" + volumeName(disk.description);
  std::string path = wanted;
  for (int i = 1; files_.fileExists(path); ++i) path = wanted + " " + std::to_string(i);
  moveFolder(disk.unmountedPath(), path);
  files_.setFreeSize(path, disk.freeSize);
  disk.mountedAt = path;
}

void Disks::detachVolume(Disk& disk) {
  disk.freeSize = files_.fileSystemFreeSize(disk.mountedAt).value_or(disk.freeSize);
  moveFolder(disk.mountedAt, disk.unmountedPath());
  disk.mountedAt.clear();
}

void Disks::moveFolder(const std::string& from, const std::string& to) {
  std::error_code error;
  std::filesystem::rename(files_.realPath(from), files_.realPath(to), error);
  if (error) fail_("the folder of a volume cannot go from " + from + " to " + to + ": " + error.message());
}

}  // namespace platform::fake
