#pragma once

#include <chrono>

#include "base/result.h"
#include "platform/linux/udisks_objects.h"

namespace platform::freedesktop {

// The beginning of the names of UDisks2's interfaces.
inline constexpr std::string_view kUDisksPrefix = "org.freedesktop.UDisks2.";

// UDisks2's objects at this moment, for programs that look once. Starts the daemon where it can be started;
// an error where there is none, or it does not answer in time.
base::Result<UDisksObjects> listUDisks(std::chrono::milliseconds patience);

}  // namespace platform::freedesktop
