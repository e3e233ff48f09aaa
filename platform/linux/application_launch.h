#pragma once

#include <optional>
#include <string>

namespace platform::freedesktop {

// Starts the application whose desktop entry has that name. What went wrong, else nullopt.
std::optional<std::string> launchDesktopEntry(const std::string& name);

}  // namespace platform::freedesktop
