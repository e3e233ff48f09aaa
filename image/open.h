#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/random_access.h"
#include "base/result.h"
#include "base/secret.h"
#include "image/crypt/container.h"
#include "image/udif/reader.h"

namespace image {

// The message of the Error for a password that does not open an image.
inline constexpr const char* kAuthenticationError = "Authentication error";

// An image with the file that it is in and, where it is encrypted, what decrypts it.
class OpenedImage {
 public:
  // Password: null when there is none to be had. Refused with kAuthenticationError where the image is
  // encrypted and the password is not the one.
  static base::Result<std::unique_ptr<OpenedImage>> open(const std::string& path,
                                                         const base::Secret* password);
  // From the bytes of an image that is not encrypted.
  static base::Result<std::unique_ptr<OpenedImage>> plain(std::unique_ptr<base::RandomAccess> file);
  // From the bytes of an encrypted one, whose header must be the given one.
  static base::Result<std::unique_ptr<OpenedImage>> withKeys(std::unique_ptr<base::RandomAccess> file,
                                                             const crypt::ContainerHeader& header,
                                                             crypt::ContainerKeys keys);

  const udif::Image& udif() const { return *udif_; }
  // nullopt when it is not encrypted.
  const std::optional<crypt::ContainerHeader>& container() const { return container_; }
  std::uint64_t fileBytes() const { return file_->size(); }

 private:
  OpenedImage() = default;

  base::Result<void> decrypt(crypt::ContainerKeys keys);
  base::Result<void> read(const base::RandomAccess& plain);

  std::unique_ptr<base::RandomAccess> file_;
  std::optional<crypt::ContainerHeader> container_;
  std::unique_ptr<udif::DecryptedFile> decrypted_;
  std::optional<udif::Image> udif_;
};

}  // namespace image
