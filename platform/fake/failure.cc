#include "platform/fake/failure.h"

#include <cstdlib>
#include <iostream>

namespace platform::fake {

void Failure::operator()(const std::string& message) const {
  if (handler_) return handler_(message);
  std::cerr << "fake world: " << message << std::endl;
  std::abort();
}

}  // namespace platform::fake
