#pragma once

#include <string>

#include "ports/disk_arbitration.h"

namespace platform::freedesktop {

// What a D-Bus error of UDisks2's, or of the bus, means to who arbitrates disks.
ports::Dissenter dissenterFromBusError(const std::string& errorName, const std::string& message);

}  // namespace platform::freedesktop
