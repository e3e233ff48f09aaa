#pragma once

#include <string>

#include "base/mutex.h"
#include "platform/posix/disk_sessions.h"
#include "platform/posix/file_descriptor.h"
#include "ports/disk_arbitration.h"

namespace platform::posix {

// A disk whose volume is, while it is mounted, a folder of this host. Any thread.
class FolderDisk : public ports::Disk {
 public:
  // Without a folder where the volume is not mounted.
  explicit FolderDisk(ports::DiskDescription given, std::string folder = "")
      : description(std::move(given)), folder_(std::move(folder)) {}

  // A claim goes with it. Empty: not mounted.
  void setFolder(const std::string& folder);
  std::string folder() const;

  // Holds the folder open, so that the kernel refuses whoever wants to unmount it.
  void claim();
  void unclaim();
  bool isClaimed() const;

  ports::DiskDescription description;  // main thread only

 private:
  void hold() REQUIRES(mutex_);

  mutable base::Mutex mutex_;
  std::string folder_ GUARDED_BY(mutex_);
  bool claimed_ GUARDED_BY(mutex_) = false;
  FileDescriptor held_ GUARDED_BY(mutex_);
};

// What arbitrations of such disks have in common. Their DiskRefs are FolderDisks, and any other FolderDisk
// can be described and claimed as well.
class FolderDisks : public ports::DiskArbitration {
 public:
  // The queue outlives this.
  FolderDisks(ports::MainQueue& queue, DiskSessions::Present present)
      : disksPresent_(std::move(present)), sessions_(queue, disksPresent_) {}

  std::unique_ptr<ports::DiskSession> createSession(ports::DiskSessionCallbacks callbacks) override;
  ports::DiskDescription copyDescription(const ports::DiskRef& disk) override;
  void claim(const ports::DiskRef& disk) override;
  void unclaim(const ports::DiskRef& disk) override;
  ports::DiskRef diskFromVolumePath(const base::FileURL& volume) override;

 private:
  const DiskSessions::Present disksPresent_;

 protected:
  DiskSessions sessions_;
};

}  // namespace platform::posix
