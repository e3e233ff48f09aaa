#pragma once

#include <string>

namespace base {

// "3.1 MB", "120 GB", for people: powers of 1000, a decimal below ten, KB at least.
std::string byteText(double bytes);

}  // namespace base
