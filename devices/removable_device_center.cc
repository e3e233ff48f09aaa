#include "devices/removable_device_center.h"

#include <utility>

ZQRemovableDeviceCenter::ZQRemovableDeviceCenter(const ports::Host& host)
    : host_(host), self_(std::make_shared<ZQRemovableDeviceCenter*>(this)) {
  reloadData();
  host_.notifications.addObserver(
      ZQRemovableDeviceCenterDataReloadedNotification,
      [&queue = host_.mainQueue](const auto& deliver) { queue.performAndWait(deliver); },
      [weakSelf = std::weak_ptr(self_)](const auto&) {
        if (const auto self = weakSelf.lock()) (*self)->reloadData();
      });
}

ZQRemovableDeviceCenter::~ZQRemovableDeviceCenter() {
  self_.reset();
  for (const auto& device : availableDevices()) {
    if (device->claimed()) device->unclaim();
  }
}

void ZQRemovableDeviceCenter::reloadData() {
  if (const auto listener = delegate()) listener->removableDeviceCenterWillReloadData(*this);
  {
    const base::MutexLock lock(mutex_);
    availableDevices_.clear();
  }
  auto session = host_.disks.createSession({
      .appeared = [this](const auto& disk) { ZQDiskAppearedCallback(disk); },
      .disappeared = [this](const auto& disk) { ZQDiskDisappearedCallback(disk); },
      .approveUnmount = [this](const auto& /*any disk*/) { return ZQDiskUnmountApprovalCallback(); },
  });
  if (session) session_ = std::move(session);
  if (const auto listener = delegate()) listener->removableDeviceCenterDidReloadData(*this);
}

std::vector<std::shared_ptr<ZQRemovableDevice>> ZQRemovableDeviceCenter::availableDevices() const {
  const base::MutexLock lock(mutex_);
  return availableDevices_;
}

std::shared_ptr<ZQRemovableDeviceCenterDelegate> ZQRemovableDeviceCenter::delegate() const {
  const base::MutexLock lock(mutex_);
  return delegate_;
}

void ZQRemovableDeviceCenter::setDelegate(std::shared_ptr<ZQRemovableDeviceCenterDelegate> delegate) {
  const base::MutexLock lock(mutex_);
  delegate_.swap(delegate);
}

bool ZQRemovableDeviceCenter::ZQDiskIsPartition(const ports::DiskRef& disk) const {
  const auto description = host_.disks.copyDescription(disk);
  const auto* whole = base::find<bool>(description, ports::kDADiskDescriptionMediaWholeKey);
  return whole && !*whole;
}

std::shared_ptr<ZQRemovableDevice> ZQRemovableDeviceCenter::deviceForDisk(const ports::DiskRef& disk) const {
  return ZQRemovableDevice::_initWithDiscDescription(host_, host_.disks.copyDescription(disk), disk);
}

void ZQRemovableDeviceCenter::ZQDiskAppearedCallback(const ports::DiskRef& disk) {
  if (!ZQDiskIsPartition(disk)) return;
  const auto device = deviceForDisk(disk);
  if (!device) return;
  {
    const base::MutexLock lock(mutex_);
    availableDevices_.push_back(device);
  }
  host_.notifications.post(ZQRemovableDeviceCenterDeviceMountedNotification, device);
}

void ZQRemovableDeviceCenter::ZQDiskDisappearedCallback(const ports::DiskRef& disk) {
  const auto device = deviceForDisk(disk);
  if (!device) return;
  {
    const base::MutexLock lock(mutex_);
    std::erase_if(availableDevices_, [&](const auto& listed) { return listed->isEqual(*device); });
  }
  host_.notifications.post(ZQRemovableDeviceCenterDeviceUnmountedNotification, device);
}

// Kept on purpose: which disk is asked about does not matter.
std::optional<ports::Dissenter> ZQRemovableDeviceCenter::ZQDiskUnmountApprovalCallback() const {
  for (const auto& device : availableDevices()) {
    if (!device->claimed()) continue;
    return ports::Dissenter{ports::kDAReturnBusy,
                            "Stashwick is busy writing to this device. Please cancel the operation first."};
  }
  return std::nullopt;
}
