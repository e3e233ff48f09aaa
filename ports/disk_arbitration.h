#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/file_url.h"
#include "base/property_list.h"

namespace ports {

// One disk (whole or a slice) as the host arbitrates it. Opaque: its adapter knows what is inside.
class Disk {
 public:
  virtual ~Disk() = default;
};
using DiskRef = std::shared_ptr<Disk>;

// What is known of a disk: a dictionary under the platform's keys. An absent entry means "not known".
using DiskDescription = base::PropertyList::Dictionary;

inline constexpr std::string_view kDADiskDescriptionVolumeNameKey = "DAVolumeName";            // string
inline constexpr std::string_view kDADiskDescriptionVolumeKindKey = "DAVolumeKind";            // string
inline constexpr std::string_view kDADiskDescriptionVolumeMountableKey = "DAVolumeMountable";  // boolean
inline constexpr std::string_view kDADiskDescriptionMediaBSDNameKey = "DAMediaBSDName";        // string
inline constexpr std::string_view kDADiskDescriptionMediaEjectableKey = "DAMediaEjectable";    // boolean
inline constexpr std::string_view kDADiskDescriptionMediaIconKey = "DAMediaIcon";              // any value
inline constexpr std::string_view kDADiskDescriptionMediaSizeKey = "DAMediaSize";  // number, bytes
// The canonical text: upper-case hexadecimal in groups of 8-4-4-4-12.
inline constexpr std::string_view kDADiskDescriptionMediaUUIDKey = "DAMediaUUID";
inline constexpr std::string_view kDADiskDescriptionMediaWholeKey = "DAMediaWhole";          // boolean
inline constexpr std::string_view kDADiskDescriptionMediaWritableKey = "DAMediaWritable";    // boolean
inline constexpr std::string_view kDADiskDescriptionDeviceInternalKey = "DADeviceInternal";  // boolean
inline constexpr std::string_view kDADiskDescriptionDeviceProtocolKey = "DADeviceProtocol";  // string
inline constexpr std::string_view kDADiskDescriptionDeviceVendorKey = "DADeviceVendor";      // string
// Number: seconds since 2001-01-01 00:00:00 UTC at which the disk appeared to the system.
inline constexpr std::string_view kDAAppearanceTimeKey = "DAAppearanceTime";

using DAReturn = std::uint32_t;
inline constexpr DAReturn kDAReturnSuccess = 0;
inline constexpr DAReturn kDAReturnError = 0xF8DA0001;
inline constexpr DAReturn kDAReturnBusy = 0xF8DA0002;
inline constexpr DAReturn kDAReturnBadArgument = 0xF8DA0003;
inline constexpr DAReturn kDAReturnExclusiveAccess = 0xF8DA0004;
inline constexpr DAReturn kDAReturnNoResources = 0xF8DA0005;
inline constexpr DAReturn kDAReturnNotFound = 0xF8DA0006;
inline constexpr DAReturn kDAReturnNotMounted = 0xF8DA0007;
inline constexpr DAReturn kDAReturnNotPermitted = 0xF8DA0008;
inline constexpr DAReturn kDAReturnNotPrivileged = 0xF8DA0009;
inline constexpr DAReturn kDAReturnNotReady = 0xF8DA000A;
inline constexpr DAReturn kDAReturnNotWritable = 0xF8DA000B;
inline constexpr DAReturn kDAReturnUnsupported = 0xF8DA000C;

// A refusal: of an unmount by a client that was asked, or of an operation by the system.
struct Dissenter {
  DAReturn status = kDAReturnError;
  std::string statusString;
};

using DiskCompletion = std::function<void(const std::optional<Dissenter>&)>;

struct DiskSessionCallbacks {
  std::function<void(const DiskRef&)> appeared;
  // The description of a disk that is gone can still be copied: it is the last one known.
  std::function<void(const DiskRef&)> disappeared;
  // Asked before a disk is unmounted; a dissenter refuses, and its text is shown to whoever asked.
  std::function<std::optional<Dissenter>(const DiskRef&)> approveUnmount;
};

// Keeps callbacks coming. After its destruction none is made, not even one that was already under way to the
// main queue. It may be destroyed from inside one of its own callbacks.
class DiskSession {
 public:
  virtual ~DiskSession() = default;
};

// Tells which disks there are and acts on them. Main thread only, but for claim and unclaim, which any thread
// may call. Every callback and completion comes on the main queue, never from inside the call that asked.
class DiskArbitration {
 public:
  virtual ~DiskArbitration() = default;

  // A session reports every disk already present as an arrival once the main queue runs next, and from then
  // on each arrival and departure. Null when the host has no arbitration to offer.
  virtual std::unique_ptr<DiskSession> createSession(DiskSessionCallbacks callbacks) = 0;

  virtual DiskDescription copyDescription(const DiskRef& disk) = 0;

  // The disk is in use by us: the host keeps others from unmounting it where it can.
  virtual void claim(const DiskRef& disk) = 0;
  virtual void unclaim(const DiskRef& disk) = 0;

  virtual void mount(const DiskRef& disk, DiskCompletion done) = 0;
  virtual void unmount(const DiskRef& disk, DiskCompletion done) = 0;
  virtual void eject(const DiskRef& disk, DiskCompletion done) = 0;
  virtual void rename(const DiskRef& disk, const std::string& name) = 0;

  // The disk whose volume is mounted at a logical path ("/Volumes/STICK"), or null.
  virtual DiskRef diskFromVolumePath(const base::FileURL& volume) = 0;
};

}  // namespace ports
