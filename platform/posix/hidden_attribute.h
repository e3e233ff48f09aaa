#pragma once

#include <cstdint>

namespace platform::posix {

// The "hidden" attribute that FAT, exFAT and NTFS keep beside a name, as far as the kernel tells it. One
// reader for each folder; cheap where the file system has no such attribute.
class HiddenAttribute {
 public:
  HiddenAttribute() = default;
  // For the items in an open folder. `device` is the folder's; a reader for the same device is passed on from
  // folder to folder, so that a file system is asked once what it is.
  static HiddenAttribute forFolder(int folder, std::uint64_t device, const HiddenAttribute& parent);

  // False where it cannot be read.
  bool isSet(int folder, const char* name);

 private:
  enum class Source { none, fat, ntfs };
  static Source sourceOf(int folder);
  bool isSetOnFAT(int folder, const char* name);
  static bool isSetOnNTFS(int folder, const char* name);

  std::uint64_t device_ = 0;
  Source source_ = Source::none;
};

}  // namespace platform::posix
