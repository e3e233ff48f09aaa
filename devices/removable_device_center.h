#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "base/mutex.h"
#include "base/notification_center.h"
#include "devices/notifications.h"
#include "devices/removable_device.h"
#include "ports/host.h"

class ZQRemovableDeviceCenter;

// Who wants to know when the centre builds its list anew. What is not overridden is not done.
class ZQRemovableDeviceCenterDelegate {
 public:
  virtual ~ZQRemovableDeviceCenterDelegate() = default;
  virtual void removableDeviceCenterWillReloadData(ZQRemovableDeviceCenter& /*center*/) {}
  // The list is still empty here: it fills when the main queue delivers the arrivals.
  virtual void removableDeviceCenterDidReloadData(ZQRemovableDeviceCenter& /*center*/) {}
};

// Watches the disks that are arbitrated, keeps the list of volumes that are present, posts their arrivals and
// departures, and refuses every unmount while a listed device is claimed. Main thread only, but for
// availableDevices() and the delegate's accessors.
//
// A reload (made by init, by reloadData(), and by anybody's ZQRemovableDeviceCenterDataReloadedNotification)
// drops every record, claimed ones too and without unclaiming them, and posts every present volume's arrival
// again.
class ZQRemovableDeviceCenter {
 public:
  explicit ZQRemovableDeviceCenter(const ports::Host& host);
  ~ZQRemovableDeviceCenter();  // unclaims the claimed devices
  ZQRemovableDeviceCenter(const ZQRemovableDeviceCenter&) = delete;
  ZQRemovableDeviceCenter& operator=(const ZQRemovableDeviceCenter&) = delete;

  void reloadData();

  // The devices whose volumes are present, in order of arrival, as they are at this moment.
  std::vector<std::shared_ptr<ZQRemovableDevice>> availableDevices() const;

  std::shared_ptr<ZQRemovableDeviceCenterDelegate> delegate() const;
  void setDelegate(std::shared_ptr<ZQRemovableDeviceCenterDelegate> delegate);

 private:
  bool ZQDiskIsPartition(const ports::DiskRef& disk) const;
  void ZQDiskAppearedCallback(const ports::DiskRef& disk);
  void ZQDiskDisappearedCallback(const ports::DiskRef& disk);
  std::optional<ports::Dissenter> ZQDiskUnmountApprovalCallback() const;

  std::shared_ptr<ZQRemovableDevice> deviceForDisk(const ports::DiskRef& disk) const;

  ports::Host host_;
  mutable base::Mutex mutex_;
  std::shared_ptr<ZQRemovableDeviceCenterDelegate> delegate_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<ZQRemovableDevice>> availableDevices_ GUARDED_BY(mutex_);
  // The reload observer outlives the centre in the notification centre; this tells it that the centre is
  // gone.
  std::shared_ptr<ZQRemovableDeviceCenter*> self_;
  // One session at a time, replaced by each reload; stops first.
  std::unique_ptr<ports::DiskSession> session_;
};
