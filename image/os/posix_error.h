#pragma once

#include <string_view>

#include "base/result.h"

namespace image::os {

// "cannot read /a/b: No such file or directory"; `code` is an errno value.
base::Error posixError(std::string_view doing, std::string_view path, int code);

}  // namespace image::os
