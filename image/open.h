#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/random_access.h"
#include "base/result.h"
#include "base/secret.h"
#include "image/block/disk.h"
#include "image/block/partition_map.h"
#include "image/crypt/container.h"
#include "image/udif/disk_view.h"
#include "image/udif/reader.h"

namespace image {

// The message of the Error for a password that does not open an image.
inline constexpr const char* kAuthenticationError = "Authentication error";

// An image with the file that it is in and, where it is encrypted, what decrypts it: a UDIF file, or a disk
// or HFS+ volume that stands in its file as it is.
class OpenedImage {
 public:
  // Password: null when there is none to be had. Refused with kAuthenticationError where the image is
  // encrypted and the password is not the one.
  static base::Result<std::unique_ptr<OpenedImage>> open(const std::string& path,
                                                         const base::Secret* password);
  // From the bytes of an image that is not encrypted, which any number of threads may read.
  static base::Result<std::unique_ptr<OpenedImage>> plain(std::unique_ptr<base::RandomAccess> file);
  // From the bytes of an encrypted one, whose header must be the given one.
  static base::Result<std::unique_ptr<OpenedImage>> withKeys(std::unique_ptr<base::RandomAccess> file,
                                                             const crypt::ContainerHeader& header,
                                                             crypt::ContainerKeys keys);

  // Null where the file is a disk as it is.
  const udif::Image* udif() const { return udif_ ? &*udif_ : nullptr; }
  // nullopt when it is not encrypted.
  const std::optional<crypt::ContainerHeader>& container() const { return container_; }
  std::uint64_t fileBytes() const { return file_->size(); }

  // All that the image holds. Any number of threads may read.
  const block::Disk& disk() const { return *disk_; }
  const std::vector<block::Partition>& partitions() const { return map_.partitions; }
  block::PartitionScheme partitionScheme() const { return map_.scheme; }
  // Of the first partition that holds one; nullopt where none does.
  std::optional<block::Extent> hfsPlusVolume() const;
  // Starts disk() anew with other bounds; the reference that it gave before ends.
  void setReading(const udif::DiskView::Options& options);

 private:
  OpenedImage() = default;

  base::Result<void> decrypt(crypt::ContainerKeys keys);
  base::Result<void> read(const base::RandomAccess& plain);

  std::unique_ptr<base::RandomAccess> file_;
  std::optional<crypt::ContainerHeader> container_;
  std::unique_ptr<udif::DecryptedFile> decrypted_;
  std::optional<udif::Image> udif_;
  std::unique_ptr<block::Disk> disk_;
  block::PartitionMap map_;
};

}  // namespace image
