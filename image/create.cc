#include "image/create.h"

#include <array>
#include <future>

#include "base/byte_order.h"
#include "image/block/partitioned_disk.h"
#include "image/hfs/volume.h"
#include "image/os/host.h"
#include "image/os/new_file.h"
#include "image/os/source_folder.h"
#include "image/udif/encrypted_output.h"

namespace image {
namespace {

// A random GUID of version 4 (RFC 4122) in the byte order of partition tables.
block::GUID randomGUID() {
  block::GUID guid;
  os::fillRandom(guid);
  guid[7] = (guid[7] & std::byte{0x0F}) | std::byte{0x40};
  guid[8] = (guid[8] & std::byte{0x3F}) | std::byte{0x80};
  return guid;
}

std::uint64_t randomIdentifier() {
  std::array<std::byte, 8> bytes;
  os::fillRandom(bytes);
  return base::loadBigEndian<std::uint64_t>(bytes.data());
}

// What trying one password costs whoever has the image, and its owner once.
constexpr double kUnlockSeconds = 0.5;

class Creation {
 public:
  explicit Creation(const CreateRequest& request) : request_(request) {}

  base::Result<CreateReport> run() {
    auto file = os::NewFile::create(request_.image);
    if (!file) return file.error();
    tell("scanning " + request_.source);
    auto source = os::SourceFolder::open(request_.source);
    if (!source) return source.error();
    auto scan = source->scan({.volumeName = request_.volumeName, .cancelled = request_.cancelled});
    if (!scan) return scan.error();
    hfs::Tree& tree = scan->tree;
    tree.finish();
    const auto forks = source->forks(tree);
    auto volume = hfs::Volume::lay(tree, *forks, {.now = os::now(), .identifier = randomIdentifier()});
    if (!volume) return volume.error();
    CreateReport report{.files = (*volume)->fileCount(),
                        .folders = (*volume)->folderCount(),
                        .mountPoints = std::move(scan->mountPoints)};
    auto written = request_.encryption ? writeEncrypted(**volume, **file) : write(**volume, **file);
    if (!written) return written.error();
    report.imageBytes = *written;
    tell("syncing " + request_.image);
    if (auto synced = (*file)->sync(); !synced) return synced.error();
    if (auto published = (*file)->publish(); !published) return published.error();
    return report;
  }

 private:
  void tell(const std::string& text) const {
    if (request_.phase) request_.phase(text);
  }

  base::Result<std::uint64_t> write(const hfs::Volume& volume, block::Output& output) const {
    tell("writing " + std::to_string(volume.fileCount()) + " files and " +
         std::to_string(volume.folderCount()) + " folders, " + std::to_string(volume.size()) + " bytes");
    const block::PartitionedDisk disk(volume, randomGUID(), randomGUID());
    const unsigned workers = request_.workers == 0 ? os::processors() : request_.workers;
    return udif::writeImage(disk, disk.regions(), output,
                            {.compresses = request_.format == Format::zlib,
                             .workers = workers,
                             .segmentID = randomGUID(),
                             .cancelled = request_.cancelled,
                             .progress = request_.progress});
  }

  // The password's key is derived while the data is written: both take their time.
  base::Result<std::uint64_t> writeEncrypted(const hfs::Volume& volume, block::Output& output) const {
    const Encryption& encryption = *request_.encryption;
    const auto keys = crypt::ContainerKeys::random(encryption.method, os::fillRandom);
    auto wrapping = std::async(std::launch::async, [&] {
      return crypt::ContainerHeader::wrap(keys, encryption.password, crypt::iterationsFor(kUnlockSeconds),
                                          os::fillRandom);
    });
    udif::EncryptedOutput encrypted(keys, output);
    const auto written = write(volume, encrypted);
    const auto keyEntry = wrapping.get();
    if (!written) return written;
    auto head =
        crypt::ContainerHeader{.method = encryption.method, .dataBytes = *written, .keyEntry = keyEntry}
            .encode(randomGUID());
    if (auto put = output.write(0, head); !put) return put.error();
    return head.size() + *written;
  }

  const CreateRequest& request_;
};

}  // namespace

base::Result<CreateReport> createImage(const CreateRequest& request) { return Creation(request).run(); }

}  // namespace image
