#pragma once

#include <optional>
#include <string>

namespace image {

// Where an image is to be shown as a folder.
struct MountRequest {
  // What to do when the place for the volume's name is taken.
  enum class TakenName { refuse, findFreeOne };

  std::string image{};  // path of its file
  TakenName takenName = TakenName::refuse;
  // In which each volume has a folder of its name. Absolute.
  std::string volumesFolder{};
  // Instead: exactly here.
  std::optional<std::string> mountPoint{};
  // Refuse an image with anything wrong in it, which takes reading all of it.
  bool verifiesFirst = false;
};

struct Mounted {
  std::string mountPoint;
  std::string volumeName;
  // The very same image was there before.
  bool wasMounted = false;
};

struct UnmountRequest {
  std::string place{};  // a mount point, "/Volumes/NAME", or the path of an image
  // Files in it that are still open stop working.
  bool force = false;
  std::string volumesFolder{};
};

}  // namespace image
