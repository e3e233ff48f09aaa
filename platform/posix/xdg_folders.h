#pragma once

#include <string>

namespace platform::posix {

// The user's folders by the XDG base directory rules: the variable's value when it is an absolute path, else
// the standard place in the home folder. Without a trailing slash. Not made.
std::string dataHome();    // $XDG_DATA_HOME, ~/.local/share
std::string configHome();  // $XDG_CONFIG_HOME, ~/.config

// In which mounted images, and whatever volume nobody registered, have a folder of their name.
std::string unregisteredVolumesFolder();

// Makes the folder and those above it, all for this user only. True when the folder is there afterwards.
bool makeFolders(const std::string& path);

}  // namespace platform::posix
