#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/property_list.h"
#include "ports/system_log.h"

namespace platform::posix {

// A larger property-list file is not read.
inline constexpr std::uint64_t kMaxDictionaryFileSize = 64 << 20;

// The dictionary in a property-list file, XML or binary, by host path. nullopt when there is no file, or,
// with one line in the log, when it cannot be read or is no dictionary.
std::optional<base::PropertyList::Dictionary> readDictionaryFile(const std::string& path,
                                                                 ports::SystemLog& log);

// Writes an XML property list, for this user only, whole or not at all, through a symbolic link. What was no
// readable dictionary is kept aside first; when it cannot be, nothing is written. The log is told of what was
// kept, and of every failure but a missing folder.
bool writeDictionaryFile(const base::PropertyList::Dictionary& dictionary, const std::string& path,
                         ports::SystemLog& log);

}  // namespace platform::posix
