#pragma once

#include <memory>

#include "base/secret.h"

namespace engine {

// A password as the disk-image tool reads it from its standard input: the UTF-8 bytes, a NUL, a newline. No
// password reads as the platform's text for nothing, on purpose.
inline base::Secret passwordText(const base::Secret* password) {
  using namespace std::string_view_literals;
  return (password ? password->duplicate() : base::Secret("(null)")).append("\0\n"sv);
}

}  // namespace engine
