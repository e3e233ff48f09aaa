#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/secret.h"

namespace image::crypt {

enum class Method { aes128, aes256 };
// "AES-128" or "AES-256".
std::optional<Method> methodNamed(std::string_view name);

// Fills with bytes that nobody can guess.
using RandomBytes = std::function<void(std::span<std::byte>)>;

constexpr std::uint32_t kLeastIterations = 250'000;
// How many rounds of PBKDF2 take about `seconds` here, at least kLeastIterations.
std::uint32_t iterationsFor(double seconds);

// The keys of an encrypted container of version 2: its data is cut into blocks, and block i is AES-CBC with
// an IV made of HMAC-SHA1 over i. Any number of threads may use one at once.
class ContainerKeys {
 public:
  static ContainerKeys random(Method method, const RandomBytes& random);

  ContainerKeys duplicate() const { return {cipherKey_.duplicate(), ivKey_.duplicate()}; }

  // Blocks from `firstBlock` on, in place. blocks.size() is a multiple of blockBytes, itself one of 16.
  void encrypt(std::uint32_t firstBlock, std::size_t blockBytes, std::span<std::byte> blocks) const;
  void decrypt(std::uint32_t firstBlock, std::size_t blockBytes, std::span<std::byte> blocks) const;

 private:
  friend struct ContainerHeader;

  ContainerKeys(base::Secret cipherKey, base::Secret ivKey)
      : cipherKey_(std::move(cipherKey)), ivKey_(std::move(ivKey)) {}

  base::Secret cipherKey_;
  base::Secret ivKey_;
};

// What stands in front of the data: the `encrcdsa` header with key entries, each of which holds the keys
// wrapped with a password (PBKDF2-HMAC-SHA1, 3DES-CBC). New containers have one.
struct ContainerHeader {
  // Of new containers; both are also what the platform's own images have.
  static constexpr std::uint32_t kBlockBytes = 4096;
  static constexpr std::uint64_t kDataOffset = 122'880;

  Method method = Method::aes256;
  std::uint32_t blockBytes = kBlockBytes;
  // Bytes of plain data, which the last block pads with zeros.
  std::uint64_t dataBytes = 0;
  std::uint64_t dataOffset = kDataOffset;
  std::vector<std::vector<std::byte>> keyEntries{};

  // Wraps the keys with the password; takes as long as the iterations take.
  static std::vector<std::byte> wrap(const ContainerKeys& keys, const base::Secret& password,
                                     std::uint32_t iterations, const RandomBytes& random);
  // Tries one entry after the other. nullopt when the password is not the right one.
  std::optional<ContainerKeys> unwrap(const base::Secret& password) const;

  // dataOffset bytes.
  std::vector<std::byte> encode(std::span<const std::byte, 16> identifier) const;
  // bytes: the file's first kHeadBytes, or all of a shorter one. Key entries for anything but a password are
  // passed over.
  static constexpr std::size_t kHeadBytes = 1 << 17;
  static base::Result<ContainerHeader> decode(std::span<const std::byte> bytes);
  static bool isContainer(std::span<const std::byte> bytes);
  // Whether a file with these bytes at its very end is a container of version 1, which is not read here.
  static constexpr std::size_t kVersion1EndBytes = 8;
  static bool isVersion1(std::span<const std::byte> end);
};

}  // namespace image::crypt
