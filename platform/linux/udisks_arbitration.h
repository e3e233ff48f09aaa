#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/bus_greeting.h"
#include "platform/linux/udisks_disks.h"
#include "platform/posix/folder_disks.h"
#include "platform/posix/path_map.h"
#include "ports/dates.h"
#include "ports/disk_arbitration.h"
#include "ports/main_queue.h"
#include "ports/system_log.h"

namespace platform::freedesktop {

class UDisksBus;

// Disk arbitration over UDisks2. Needs a QCoreApplication, on the main thread.
//
// Each volume (a block device with a file system) has a name of its own among those present: its label, else
// the model and size of its drive; the second STICK is called "STICK 1". While it is mounted, /Volumes/NAME
// is its mount point in the path map. Where nobody has mounted a USB stick two seconds after it came, this
// mounts it, as the user, without asking for a password.
//
// A volume arrives once it is mounted or that mounting has failed, so that its contents are there to be
// looked at; a volume that nobody is expected to mount (internal ones, attached images) arrives at once. From
// then on it stays present, mounted or not, with two exceptions, which are told as a departure and an
// arrival: the first mount of a volume that arrived unmounted, and a new name, kind or UUID (a rename, an
// erase). Both wait while the volume is claimed.
//
// When the daemon goes, so do all its disks. A pulled stick vanishes without a word before; its claim is let
// go and its path with it.
class UDisksArbitration : public posix::FolderDisks {
 public:
  // All outlive this.
  struct Surroundings {
    ports::MainQueue& queue;
    posix::PathMap& paths;
    ports::Dates& dates;
    ports::SystemLog& log;
  };
  struct Settings {
    std::string busAddress = systemBusAddress();
    std::string sysfs = "/sys";
    double secondsUntilMounted = 2;
    std::chrono::milliseconds answersWithin = std::chrono::seconds(30);
    // Mounting, unmounting and the like: a slow stick may have much to write, a person a password to type.
    std::chrono::milliseconds actsWithin = std::chrono::minutes(10);
  };

  explicit UDisksArbitration(const Surroundings& surroundings)
      : UDisksArbitration(surroundings, Settings()) {}
  UDisksArbitration(const Surroundings& surroundings, Settings settings);
  ~UDisksArbitration() override;
  UDisksArbitration(const UDisksArbitration&) = delete;
  UDisksArbitration& operator=(const UDisksArbitration&) = delete;

  // Null when there is no system bus. Without a daemon there are no disks until it comes.
  std::unique_ptr<ports::DiskSession> createSession(ports::DiskSessionCallbacks callbacks) override;
  void unclaim(const ports::DiskRef& disk) override;
  void mount(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  // Sessions are asked before this unmounts; what others unmount is only withstood by a claim.
  void unmount(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  // Of a drive whose medium can be ejected; the power stays on.
  void eject(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  // Sets the file system's label; some kinds refuse while they are mounted, which is logged.
  void rename(const ports::DiskRef& disk, const std::string& name) override;

 private:
  struct Present;
  struct Mounting;
  using PresentRef = std::shared_ptr<Present>;

  void later(std::function<void()> act);
  ports::DiskCompletion completingLater(ports::DiskCompletion done);

  void reconcile();
  bool isReplaced(const Present& present, const UDisksDisk& now) const;
  bool isRenewed(const Present& present, const UDisksDisk& now) const;
  void arrive(UDisksDisk found);
  void update(const PresentRef& present, UDisksDisk now);
  void setMountPoint(Present& present, const std::string& mountPoint);
  void announce(Present& present);
  void depart(const PresentRef& present);
  void mountUnlessMounted(const PresentRef& present);
  ports::DiskDescription describe(const UDisksDisk& found, const Present& present) const;

  PresentRef presentOf(const ports::DiskRef& disk) const;
  bool isPresent(const PresentRef& present) const;
  std::vector<ports::DiskRef> announced() const;

  void mountNow(const PresentRef& present, bool asksForPassword, const ports::DiskCompletion& done);
  void completeOnceMounted(const std::string& block, const ports::DiskCompletion& done);
  void complete(const std::shared_ptr<Mounting>& mounting);
  void completeMounts();
  void unmountNow(const PresentRef& present, const ports::DiskCompletion& done);
  void ejectNow(const PresentRef& present, const ports::DiskCompletion& done);

  const Surroundings around_;
  const Settings settings_;
  std::vector<PresentRef> present_;  // in order of arrival
  std::vector<std::shared_ptr<Mounting>> mounting_;
  // Tells closures that are still on their way to the main thread that this is gone.
  std::shared_ptr<UDisksArbitration*> self_;
  const std::unique_ptr<UDisksBus> bus_;
};

}  // namespace platform::freedesktop
