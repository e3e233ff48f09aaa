#include "image/udif/encrypted_output.h"

#include <algorithm>
#include <vector>

namespace image::udif {

base::Result<void> EncryptedOutput::write(std::uint64_t offset, std::span<std::byte> bytes) {
  constexpr std::size_t kBlock = crypt::ContainerHeader::kBlockBytes;
  const auto block = static_cast<std::uint32_t>(offset / kBlock);
  const std::uint64_t at = crypt::ContainerHeader::kDataOffset + offset;
  if (bytes.size() % kBlock == 0) {
    keys_.encrypt(block, kBlock, bytes);
    return output_.write(at, bytes);
  }
  std::vector<std::byte> padded(bytes.begin(), bytes.end());
  padded.resize((bytes.size() + kBlock - 1) / kBlock * kBlock);
  keys_.encrypt(block, kBlock, padded);
  return output_.write(at, padded);
}

}  // namespace image::udif
