#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace base {

// The bytes of a password or a key. Move-only, overwritten before its memory is given back, and without any
// way to print or compare it by accident: whoever needs the bytes says reveal(). Never an argument of a
// program, never a log line; it travels by pipe.
class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string_view bytes);
  ~Secret();
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret&& other) noexcept;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  // A copy that is a deliberate act.
  Secret duplicate() const { return Secret(reveal()); }

  // This secret with bytes appended; this one is left empty.
  Secret append(std::string_view bytes) &&;

  // Valid while this secret lives and is not moved from.
  std::string_view reveal() const { return {bytes_.get(), size_}; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  void wipe() noexcept;

  std::unique_ptr<char[]> bytes_;
  std::size_t size_ = 0;
};

// Overwrites memory in a way that the compiler may not leave out.
void wipeMemory(void* memory, std::size_t size) noexcept;

}  // namespace base
