#pragma once

#include <string>
#include <sys/types.h>

namespace image::os {

// Whether the medium of the file system with this device number is still attached. FAT lists nothing for a
// folder of a medium that was pulled out, and does not call that an error. blockDevices: where the kernel
// lists its block devices; where there is no such list, and for a file system on none of them (its number has
// no major part), the answer is yes.
bool isMediumAttached(dev_t device, const std::string& blockDevices = "/sys/dev/block");

}  // namespace image::os
