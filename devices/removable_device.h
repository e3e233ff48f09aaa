#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/date.h"
#include "base/domain_error.h"
#include "base/file_url.h"
#include "devices/notifications.h"
#include "ports/host.h"

enum ZQRemovableDeviceProtocol : std::int32_t {
  ZQRemovableDeviceProtocolUnknown = 0,
  ZQRemovableDeviceProtocolUSB = 1,
  ZQRemovableDeviceProtocolSATA = 2,
  ZQRemovableDeviceProtocolATA = 3,
  ZQRemovableDeviceProtocolVirtualInterface = 4,
};

enum ZQRemovableDeviceType : std::int32_t {
  ZQRemovableDeviceTypeInternal = 1,
  ZQRemovableDeviceTypeExternal = 2,
  ZQRemovableDeviceTypeVirtual = 3,  // a disk image attached through the virtual interface
};

enum ZQRemovableDeviceFileSystem : std::int32_t {
  ZQRemovableDeviceFileSystemFAT16 = 1,
  ZQRemovableDeviceFileSystemFAT32 = 2,
  ZQRemovableDeviceFileSystemHFSPlus = 3,
  ZQRemovableDeviceFileSystemJournaledHFSPlus = 4,
};

// One disk volume as disk arbitration described it once, and what can be done with it. Never refreshed: a
// change on the disk is seen by building new devices. Built and used on the main thread; claim(), unclaim()
// and the getters may be called from any thread.
//
// The outcome of mount, unmount and eject is learned only from the log and from
// ZQRemovableDeviceCenterDataReloadedNotification, which every completion posts.
class ZQRemovableDevice {
 public:
  // Null for what is no volume of ours: kind "autofs", or no volume name.
  static std::shared_ptr<ZQRemovableDevice> _initWithDiscDescription(
      const ports::Host& host, const ports::DiskDescription& description, ports::DiskRef withRef);

  // Same name and same type; nothing else takes part, on purpose: a vanished volume is found by this rule.
  bool isEqual(const ZQRemovableDevice& other) const;

  // A mounted volume is only unmounted, not ejected, on purpose.
  void eject();
  void mount();
  void unmount();  // gives up a claim first
  // Holds the volume against unmounting; claimed() is true at once, whatever the host will answer.
  void claim();
  void unclaim();
  void rename(const std::string& name);

  // Erases the whole disk that holds this volume, which keeps its name; returns when the disk utility has
  // exited, whatever came of it. The disk is found by taking the last two characters off BSDName; throws
  // std::out_of_range when it is shorter. For an unknown code the utility is run with "eraseDisk" alone.
  void formatDiscUsingFileSystem(ZQRemovableDeviceFileSystem fileSystem);

  // The disk of the volume mounted at a logical path, or null.
  static ports::DiskRef discReferenceFromPath(const ports::Host& host, const base::FileURL& volume);

  const std::string& name() const { return name_; }
  const std::optional<std::string>& vendor() const { return vendor_; }
  // The media's UUID, the volume's identity across names and days; absent when the media has none.
  const std::optional<std::string>& UDID() const { return UDID_; }
  const std::optional<std::string>& BSDName() const { return BSDName_; }
  ZQRemovableDeviceProtocol protocol() const { return protocol_; }
  ZQRemovableDeviceType type() const { return type_; }
  float size() const { return size_; }  // bytes
  // When the disk appeared to the system, in steps of 64 seconds (2018 to 2035).
  base::Date connectionDate() const { return connectionDate_; }
  bool writable() const { return writable_; }
  bool mountable() const { return mountable_; }
  bool ejectable() const { return ejectable_; }
  // Whether anything stood at /Volumes/NAME when this record was built.
  bool mounted() const { return mounted_; }
  bool claimed() const { return claimed_; }
  const std::shared_ptr<const ports::Image>& icon() const { return icon_; }
  // Nothing fills these: always empty.
  const std::vector<std::shared_ptr<ZQRemovableDevice>>& partitions() const { return partitions_; }
  const std::optional<base::DomainError>& error() const { return error_; }

 private:
  ZQRemovableDevice(const ports::Host& host, const ports::DiskDescription& description, std::string name,
                    ports::DiskRef reference);

  ports::Host host_;
  ports::DiskRef currentReference_;
  std::optional<base::DomainError> error_;
  std::string name_;
  std::optional<std::string> vendor_;
  std::optional<std::string> UDID_;
  std::optional<std::string> BSDName_;
  ZQRemovableDeviceProtocol protocol_;
  ZQRemovableDeviceType type_;
  float size_;
  base::Date connectionDate_;
  bool writable_;
  bool mountable_;
  bool ejectable_;
  bool mounted_;
  std::atomic<bool> claimed_ = false;
  std::shared_ptr<const ports::Image> icon_;
  std::vector<std::shared_ptr<ZQRemovableDevice>> partitions_;
};
