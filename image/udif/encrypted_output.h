#pragma once

#include <array>
#include <cstdint>

#include "image/block/output.h"
#include "image/crypt/container.h"

namespace image::udif {

// Writes through to an encrypted container of version 2, block by block. Offsets are multiples of the
// container's block size, and so are all lengths but the last one's.
class EncryptedOutput : public block::Output {
 public:
  // Keys and output outlive this.
  EncryptedOutput(const crypt::ContainerKeys& keys, block::Output& output) : keys_(keys), output_(output) {}

  base::Result<void> write(std::uint64_t offset, std::span<std::byte> bytes) override;
  std::unique_ptr<base::RandomAccess> readBack() const override;

 private:
  const crypt::ContainerKeys& keys_;
  block::Output& output_;
};

}  // namespace image::udif
