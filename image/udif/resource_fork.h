#pragma once

#include <cstddef>
#include <span>

#include "base/property_list.h"
#include "base/result.h"

namespace image::udif {

// The `blkx` resources of a classic resource fork (Inside Macintosh: More Macintosh Toolbox, "Resource
// Manager"), in which old images keep their block tables, in the shape of the property list that newer ones
// have.
base::Result<base::PropertyList> readResourceFork(std::span<const std::byte> bytes);

}  // namespace image::udif
