#pragma once

#include <string_view>

// Names of the device layer's notifications and of its error domain. Posted to the host's notification
// centre.

// Object: std::shared_ptr<ZQRemovableDevice>, the new device.
inline constexpr std::string_view ZQRemovableDeviceCenterDeviceMountedNotification =
    "ZQRemovableDeviceCenterDeviceMountedNotification";
// Object: std::shared_ptr<ZQRemovableDevice>, built from the last known description; equal to the listed
// device, not the same object.
inline constexpr std::string_view ZQRemovableDeviceCenterDeviceUnmountedNotification =
    "ZQRemovableDeviceCenterDeviceUnmountedNotification";
// No object. Whoever posts it makes the device centre build its list anew.
inline constexpr std::string_view ZQRemovableDeviceCenterDataReloadedNotification =
    "ZQRemovableDeviceCenterDataReloadedNotification";
// No object; both around an erase, on the thread that asked for it.
inline constexpr std::string_view ZQRemovableDeviceFormatBeganNotification =
    "ZQRemovableDeviceFormatBeganNotification";
inline constexpr std::string_view ZQRemovableDeviceFormatCompleteNotification =
    "ZQRemovableDeviceFormatCompleteNotification";

inline constexpr std::string_view ZQRemovableDeviceCenterErrorDomain = "ZQRemovableDeviceCenterErrorDomain";
