#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/random_access.h"
#include "base/result.h"

namespace platform::posix {

// Files by host path. An Error's message ends in the reason and does not repeat the path.

// A regular file, open for reading; nullptr when there is none. Survives being cut short: what is no longer
// there cannot be read. Any number of threads may read.
base::Result<std::shared_ptr<const base::RandomAccess>> openFile(const std::string& path);

// The bytes of a regular file of at most `limit` bytes; nullopt when there is none.
base::Result<std::optional<std::vector<std::byte>>> readFile(const std::string& path, std::uint64_t limit);

// The path of the folder that holds the item.
std::string folderOf(const std::string& path);

// Where a chain of symbolic links leads, whether or not anything is there; the path itself when it is no
// link.
std::string linkTarget(std::string path);

// Gives the file new contents for this user only, at once and durably: written beside, synced, renamed over,
// folder synced. On failure the old contents stand. A symbolic link at the path itself is replaced.
base::Result<void> replaceFile(const std::string& path, std::span<const std::byte> contents);

// Removes the file, durably. No error when there is none.
base::Result<void> removeFile(const std::string& path);

// Gives the file a further name, NAME.damaged or NAME.damaged-2 and so on, and returns that path. On a file
// system without links it is renamed.
base::Result<std::string> keepAside(const std::string& path);

}  // namespace platform::posix
