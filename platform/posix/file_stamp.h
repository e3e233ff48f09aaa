#pragma once

#include <compare>
#include <cstdint>
#include <string>

namespace platform::posix {

// Tells one state of a file from the next without reading it. All zero: there is no file.
struct FileStamp {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modifiedSeconds = 0;
  std::int64_t modifiedNanoseconds = 0;

  static FileStamp of(const std::string& path);
  friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

}  // namespace platform::posix
