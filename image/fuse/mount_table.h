#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "base/result.h"

namespace image::fuse {

// The type of our mounts in the kernel's table, there behind "fuse.".
inline constexpr std::string_view kFileSystemType = "hdiutil";

// Which file an image is, and as of when. Another name for it or another mode makes it no other.
struct ImageIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t bytes = 0;
  std::int64_t modified = 0;  // nanoseconds since 1970

  static base::Result<ImageIdentity> of(const std::string& path);
  friend bool operator==(const ImageIdentity&, const ImageIdentity&) = default;
};

// The process that serves a mount. Its text is the mount's source, so that whoever reads the kernel's table
// knows both without asking a server that may not answer.
struct Server {
  pid_t process = 0;
  std::uint64_t started = 0;  // clock ticks since boot, which tells it from a later process of that number
  ImageIdentity image;

  static Server thisProcess(const ImageIdentity& image);
  std::string text() const;
  static std::optional<Server> parse(std::string_view text);

  bool isAlive() const;
};

struct Mount {
  std::string mountPoint;
  std::string source;
  std::string fileSystem;
  // nullopt when it is none of ours.
  std::optional<Server> server;
};

// A line of the kernel's table (proc_pid_mountinfo(5)). nullopt when it is no such line.
std::optional<Mount> parseMount(std::string_view line);

// What is mounted, later mounts behind earlier ones. Never asks a file system anything.
std::vector<Mount> mountTable();

// A path as the table has it: absolute, its folder without symbolic links. The last component is not looked
// at: a server that does not answer may be behind it.
std::string absolutePlace(const std::string& path);

// What is on top at an absolute path without a trailing slash.
std::optional<Mount> mountAt(std::string_view mountPoint);

}  // namespace image::fuse
