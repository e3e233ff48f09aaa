#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/fake/changes.h"
#include "platform/fake/clock.h"
#include "platform/fake/failure.h"
#include "platform/fake/files.h"
#include "platform/fake/main_queue.h"
#include "ports/disk_arbitration.h"

namespace platform::fake {

// Disks that a test plugs and pulls. A disk with a volume name is mounted when it is plugged: "/Volumes/NAME"
// ("/Volumes/NAME 1" and so on when the name is taken) is there until the disk is unmounted or pulled, and
// what is in it comes back with the next mount. Claims are recorded and keep nobody out.
class Disks : public ports::DiskArbitration {
 public:
  Disks(MainQueue& mainQueue, Files& files, Clock& clock, Changes& changes, Failure& fail);
  ~Disks() override;

  std::unique_ptr<ports::DiskSession> createSession(ports::DiskSessionCallbacks callbacks) override;
  ports::DiskDescription copyDescription(const ports::DiskRef& disk) override;
  void claim(const ports::DiskRef& disk) override;
  void unclaim(const ports::DiskRef& disk) override;
  void mount(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  void unmount(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  void eject(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  void rename(const ports::DiskRef& disk, const std::string& name) override;
  ports::DiskRef diskFromVolumePath(const base::FileURL& volume) override;

  // The one partition of an external USB stick that appears now: 2,000,000,000 bytes, writable, with a BSD
  // name (disk2s1, then disk3s1, ...) and a UUID of its own.
  ports::DiskDescription usbPartition(const std::string& name);

  ports::DiskRef plug(ports::DiskDescription description);
  ports::DiskRef plugUSB(const std::string& name) { return plug(usbPartition(name)); }
  void pull(const ports::DiskRef& disk);
  // Sets entries of a disk's description; nobody is told.
  void changeDescription(const ports::DiskRef& disk, const ports::DiskDescription& entries);

  // From now on, sessions cannot be created; or can again.
  void failNextSessions(bool fail) { sessionsFail_ = fail; }
  // The system refuses the next mount, unmount or eject that nobody else refuses.
  void refuseNext(ports::Dissenter dissenter) { refusals_.push_back(std::move(dissenter)); }
  // Another program wants to unmount the disk: what it is told. Runs the main queue.
  std::optional<ports::Dissenter> requestUnmountByOther(const ports::DiskRef& disk);

  bool isPresent(const ports::DiskRef& disk) const;
  bool isMounted(const ports::DiskRef& disk) const;
  bool isEjected(const ports::DiskRef& disk) const;
  int claims(const ports::DiskRef& disk) const;
  // Where the disk's volume is mounted, as a logical path.
  std::optional<std::string> volumePath(const ports::DiskRef& disk) const;
  std::size_t liveSessionCount() const { return liveSessions().size(); }

 private:
  class Disk;
  class Session;
  struct SessionState;
  using SessionRef = std::shared_ptr<SessionState>;

  static Disk& stateOf(const ports::DiskRef& disk);
  void mustBeOnMainThread(const char* call) const;
  std::vector<SessionRef> liveSessions() const;
  void tellSessions(void (Disks::*report)(const SessionRef&, const ports::DiskRef&),
                    const ports::DiskRef& disk);
  void later(std::function<void()> event) { mainQueue_.post(std::move(event)); }
  void reportArrival(const SessionRef& session, const ports::DiskRef& disk);
  void reportDeparture(const SessionRef& session, const ports::DiskRef& disk);
  std::optional<ports::Dissenter> takeRefusal();
  std::optional<ports::Dissenter> askSessions(const ports::DiskRef& disk);
  std::optional<ports::Dissenter> mountNow(const ports::DiskRef& disk);
  std::optional<ports::Dissenter> unmountNow(const ports::DiskRef& disk);
  std::optional<ports::Dissenter> ejectNow(const ports::DiskRef& disk);
  void remove(const ports::DiskRef& disk);
  void attachVolume(Disk& disk);
  void detachVolume(Disk& disk);
  void moveFolder(const std::string& from, const std::string& to);

  MainQueue& mainQueue_;
  Files& files_;
  Clock& clock_;
  Changes& changes_;
  Failure& fail_;
  std::vector<ports::DiskRef> present_;
  std::vector<std::weak_ptr<SessionState>> sessions_;
  std::deque<ports::Dissenter> refusals_;
  bool sessionsFail_ = false;
  int plugged_ = 0;
  int described_ = 0;
  mutable base::Mutex claimsMutex_;
};

}  // namespace platform::fake
