#pragma once

#include <string>
#include <vector>

#include "cli/outcome.h"
#include "cli/surroundings.h"

namespace cli {

// stashwickctl: runs the command that the arguments name, without the program's own name, and says in the
// streams what there is to say.
Exit run(const std::vector<std::string>& arguments, const Surroundings& surroundings);

}  // namespace cli
