#pragma once

#include <atomic>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/secret.h"
#include "image/mount.h"

namespace tools {

// What the tool asks of the process that it runs in.
struct HdiutilHost {
  std::ostream& out;
  std::ostream& error;
  std::function<base::Result<base::Secret>()> readPassword;
  // Whether a person watches `error`.
  bool errorIsTerminal = false;
  // Told from time to time how much of an image is made, from 0 to 1, on any thread; may be empty.
  std::function<void(double)> tellProgress{};
  // Set when the person interrupts.
  const std::atomic<bool>& cancelled;
  // Where images are mounted is the host's affair: volumesFolder is left for it to fill in. The password is
  // null when none is needed.
  std::function<base::Result<image::Mounted>(image::MountRequest, std::optional<base::Secret> password)>
      mount{};
  // Gives the mount point.
  std::function<base::Result<std::string>(image::UnmountRequest)> unmount{};
};

// The disk image tool: runs the verb that the arguments (without the program's name) begin with, and gives
// the exit status: 0 done, 1 failed, 2 not the same (compare), 64 not understood. Each failure is one line on
// `error` that begins "hdiutil: VERB failed - "; on success no text holds that word.
int hdiutil(const std::vector<std::string>& arguments, const HdiutilHost& host);

}  // namespace tools
