#pragma once

#include <string>

// Whether a user's desktop is there to run on, by the environment.
bool hasDesktop();

// The agent on a Linux desktop: UDisks2 tells of sticks, the panel has the menu, the keyring the password.
// Gives the exit status once the user quits; at once, with 0, when an agent runs already: that one shows
// itself. toolsFolder: where hdiutil and diskutil are.
int runDesktopAgent(int& argc, char** argv, const std::string& toolsFolder);
