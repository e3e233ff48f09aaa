#include "image/udif/encrypted_output.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "image/udif/reader.h"

namespace image::udif {
namespace {

class DecryptedReadBack : public base::RandomAccess {
 public:
  DecryptedReadBack(std::unique_ptr<base::RandomAccess> file, crypt::ContainerKeys keys)
      : file_(std::move(file)), decrypted_(*file_, std::move(keys)) {}
  std::uint64_t size() const override { return decrypted_.size(); }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    return decrypted_.read(offset, into);
  }

 private:
  std::unique_ptr<base::RandomAccess> file_;
  DecryptedFile decrypted_;
};

}  // namespace

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

std::unique_ptr<base::RandomAccess> EncryptedOutput::readBack() const {
  auto file = output_.readBack();
  return file ? std::make_unique<DecryptedReadBack>(std::move(file), keys_.duplicate()) : nullptr;
}

}  // namespace image::udif
