#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/result.h"
#include "base/secret.h"

namespace image::os {

// Random bytes from the kernel, fit for keys.
void fillRandom(std::span<std::byte> into);

// Nanoseconds since 1970.
std::int64_t now();

// Threads that may run at once here, at least 1.
unsigned processors();

// The password on an open file: the bytes up to the first NUL or the end. At most 1 MiB.
base::Result<base::Secret> readPassword(int file);

}  // namespace image::os
