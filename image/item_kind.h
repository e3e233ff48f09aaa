#pragma once

#include <cstdint>
#include <optional>

#include "image/volume.h"

namespace image {

// What the type bits of a mode say that an item is; nullopt where they say nothing that there is.
std::optional<ItemKind> kindOfMode(std::uint32_t mode);

}  // namespace image
