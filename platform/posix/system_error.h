#pragma once

#include <cerrno>
#include <string>
#include <system_error>

#include "base/result.h"

namespace platform::posix {

// The system's words for an errno value. Any thread.
inline std::string errnoText(int number = errno) { return std::generic_category().message(number); }

// "opening /a/b: Permission denied", from errno.
inline base::Error errorFromErrno(const std::string& doing) { return {doing + ": " + errnoText()}; }

}  // namespace platform::posix
