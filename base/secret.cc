#include "base/secret.h"

#include <algorithm>
#include <utility>

namespace base {

void wipeMemory(void* memory, std::size_t size) noexcept {
  auto* bytes = static_cast<volatile unsigned char*>(memory);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = 0;
}

Secret::Secret(std::string_view bytes) : bytes_(new char[bytes.size()]), size_(bytes.size()) {
  std::copy(bytes.begin(), bytes.end(), bytes_.get());
}

Secret::~Secret() { wipe(); }

Secret::Secret(Secret&& other) noexcept
    : bytes_(std::move(other.bytes_)), size_(std::exchange(other.size_, 0)) {}

Secret& Secret::operator=(Secret&& other) noexcept {
  if (this != &other) {
    wipe();
    bytes_ = std::move(other.bytes_);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

Secret Secret::append(std::string_view bytes) && {
  Secret longer;
  longer.bytes_.reset(new char[size_ + bytes.size()]);
  longer.size_ = size_ + bytes.size();
  std::copy(bytes.begin(), bytes.end(), std::copy_n(bytes_.get(), size_, longer.bytes_.get()));
  wipe();
  return longer;
}

void Secret::wipe() noexcept {
  if (bytes_) wipeMemory(bytes_.get(), size_);
  bytes_.reset();
  size_ = 0;
}

}  // namespace base
