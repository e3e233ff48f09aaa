#include "image/os/posix_error.h"

#include <string>
#include <system_error>

namespace image::os {

base::Error posixError(std::string_view doing, std::string_view path, int code) {
  return {std::string(doing) + " " + std::string(path) + ": " + std::generic_category().message(code)};
}

}  // namespace image::os
