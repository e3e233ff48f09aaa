#pragma once

#include <string>
#include <vector>

#include "cli/session.h"

namespace CLI {
class App;
}

namespace cli {

// Prints, a line each, what the last of the words (those behind the program's name, the last one perhaps
// empty or half typed) can be: commands, options, volumes, backups, settings. Nothing where it is a path.
void complete(Session& session, const CLI::App& app, const std::vector<std::string>& words);

}  // namespace cli
