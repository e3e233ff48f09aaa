#include "image/os/medium.h"

#include <sys/sysmacros.h>
#include <unistd.h>

namespace image::os {

bool isMediumAttached(dev_t device, const std::string& blockDevices) {
  if (major(device) == 0 || ::access(blockDevices.c_str(), F_OK) != 0) return true;
  const std::string number = std::to_string(major(device)) + ":" + std::to_string(minor(device));
  return ::access((blockDevices + "/" + number).c_str(), F_OK) == 0;
}

}  // namespace image::os
