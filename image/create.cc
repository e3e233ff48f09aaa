#include "image/create.h"

#include <array>
#include <future>
#include <map>
#include <utility>

#include "base/byte_order.h"
#include "base/byte_text.h"
#include "image/block/partitioned_disk.h"
#include "image/hfs/volume.h"
#include "image/open.h"
#include "image/os/host.h"
#include "image/os/new_file.h"
#include "image/os/source_folder.h"
#include "image/udif/encrypted_output.h"
#include "image/verify.h"

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
    if (!hfs::storedName(request_.volumeName))
      return base::Error{"cannot call a volume \"" + request_.volumeName + "\""};
    tell("scanning " + request_.source);
    auto source = os::SourceFolder::open(request_.source);
    if (!source) return source.error();
    auto report = writeOnce(*source, **file);
    for (bool readAgain = false; readsAnew(report, readAgain);) {
      if (auto cleared = (*file)->clear(); !cleared) return cleared.error();
      report = writeOnce(*source, **file);
    }
    if (!report) return report.error();
    if (auto attached = source->requireMedium(); !attached) return attached.error();
    if (request_.verifies) {
      tell("verifying " + request_.image);
      if (auto verified = verify((*file)->contents()); !verified) return verified.error();
    }
    if (auto published = (*file)->publish(); !published) return published.error();
    return report;
  }

 private:
  void tell(const std::string& text) const {
    if (request_.phase) request_.phase(text);
  }

  unsigned workers() const { return request_.workers == 0 ? os::processors() : request_.workers; }

  // A source that changed is read once more; one with files that turned out unreadable is read without them.
  bool readsAnew(const base::Result<CreateReport>& report, bool& readAgain) {
    const bool changed = !report && sourceChanged_ && !std::exchange(readAgain, true);
    const bool lessThanBefore = report && foundUnreadable_;
    if (changed) tell(report.error().message + "; reading everything once more");
    if (lessThanBefore) tell("some files cannot be read; reading everything else once more");
    return changed || lessThanBefore;
  }

  base::Result<CreateReport> writeOnce(const os::SourceFolder& source, os::NewFile& file) {
    os::ScanOptions options{.volumeName = request_.volumeName,
                            .cancelled = request_.cancelled,
                            .skipsUnreadable = request_.skipsUnreadable};
    for (const auto& [path, reason] : unreadable_) options.unreadable.insert(path);
    auto scan = source.scan(options);
    if (!scan) return scan.error();
    scan->tree.finish();
    const auto forks = source.forks(scan->tree, request_.skipsUnreadable);
    auto report = writeTree(scan->tree, *forks, file);
    sourceChanged_ = forks->hasChanged();
    const auto found = forks->unreadable();
    foundUnreadable_ = !found.empty();
    unreadable_.insert(found.begin(), found.end());
    if (!report) return report;
    report->leftOut = std::move(scan->leftOut);
    for (const auto& [path, reason] : unreadable_) report->leftOut.push_back(reason);
    return report;
  }

  base::Result<CreateReport> writeTree(hfs::Tree& tree, const hfs::ForkSource& forks, os::NewFile& file) {
    auto volume = hfs::Volume::lay(tree, forks, {.now = os::now(), .identifier = randomIdentifier()});
    if (!volume) return volume.error();
    counts_ = {(*volume)->fileCount(), (*volume)->folderCount()};
    tell("writing " + std::to_string(counts_.files) + " files and " + std::to_string(counts_.folders) +
         " folders, " + std::to_string((*volume)->size()) + " bytes");
    auto written = request_.encryption ? writeEncrypted(**volume, file) : write(**volume, file, file);
    if (!written) return written.error();
    tell("syncing " + request_.image);
    if (auto synced = file.sync(); !synced) return synced.error();
    return CreateReport{.imageBytes = *written, .files = counts_.files, .folders = counts_.folders};
  }

  std::optional<codec::Compression> compression() const {
    if (request_.format == Format::raw) return std::nullopt;
    return request_.format == Format::bzip2 ? codec::Compression::bzip2 : codec::Compression::zlib;
  }

  base::Result<std::uint64_t> write(const hfs::Volume& volume, block::Output& output, os::NewFile& file) {
    const block::PartitionedDisk disk(volume, randomGUID(), randomGUID());
    readBack_.clear();
    const udif::WriteOptions options{.compression = compression(),
                                     .level = request_.level,
                                     .workers = workers(),
                                     .segmentID = randomGUID(),
                                     .cancelled = request_.cancelled,
                                     .progress = request_.progress,
                                     .readBack = request_.verifies ? &readBack_ : nullptr,
                                     .name = request_.image};
    if (auto room = takeRoom(disk, file, options); !room) return room.error();
    return udif::writeImage(disk, disk.regions(), output, options);
  }

  // Where the disk's bytes fit as they are, nothing needs to be known beforehand. Otherwise what will surely
  // not fit is refused before hours are spent on it, and what will is given its room at once.
  base::Result<void> takeRoom(const block::PartitionedDisk& disk, os::NewFile& file,
                              const udif::WriteOptions& options) {
    constexpr std::uint64_t kAround = 1 << 20;  // the container's header, tables, trailer
    constexpr double kClearly = 1.2;
    const auto free = file.freeBytes();
    if (!free || disk.size() + kAround <= *free) return {};
    tell("estimating how large " + request_.image + " will be");
    auto estimate = udif::estimateLength(disk, disk.regions(), options);
    if (!estimate) return estimate.error();
    const auto needed = static_cast<double>(estimate->likely);
    if (estimate->least > *free && needed > kClearly * static_cast<double>(*free))
      return base::Error{file.folder() + ": not enough free space: about " + base::byteText(needed) +
                         " needed, " + base::byteText(static_cast<double>(*free)) + " free"};
    file.reserveWhole(estimate->likely);
    return {};
  }

  // The password's key is derived while the data is written: both take their time.
  base::Result<std::uint64_t> writeEncrypted(const hfs::Volume& volume, os::NewFile& file) {
    const Encryption& encryption = *request_.encryption;
    keys_ = crypt::ContainerKeys::random(encryption.method, os::fillRandom);
    auto wrapping = std::async(std::launch::async, [&] {
      return crypt::ContainerHeader::wrap(*keys_, encryption.password, crypt::iterationsFor(kUnlockSeconds),
                                          os::fillRandom);
    });
    udif::EncryptedOutput encrypted(*keys_, file);
    const auto written = write(volume, encrypted, file);
    header_ = {
        .method = encryption.method, .dataBytes = written ? *written : 0, .keyEntries = {wrapping.get()}};
    if (!written) return written;
    auto head = header_.encode(randomGUID());
    if (auto put = file.write(0, head); !put) return put.error();
    return head.size() + *written;
  }

  // Of what is on disk, every checksum and the volume's structure. Chunks that were read back while others
  // were being written are not read again.
  base::Result<void> verify(std::unique_ptr<base::RandomAccess> file) {
    auto opened = keys_ ? OpenedImage::withKeys(std::move(file), header_, keys_->duplicate())
                        : OpenedImage::plain(std::move(file));
    auto counts = opened ? checkImage(**opened, workers(), request_.cancelled, &readBack_) : opened.error();
    if (!counts) return base::Error{"verifying " + request_.image + ": " + counts.error().message};
    if (counts->files != counts_.files || counts->folders != counts_.folders)
      return base::Error{"verifying " + request_.image + ": other files or folders than were written"};
    return {};
  }

  const CreateRequest& request_;
  bool sourceChanged_ = false;
  bool foundUnreadable_ = false;
  // By path, with the reason.
  std::map<std::string, std::string> unreadable_;
  hfs::VolumeCounts counts_;
  std::optional<crypt::ContainerKeys> keys_;
  crypt::ContainerHeader header_;
  udif::RunSums readBack_;
};

}  // namespace

base::Result<CreateReport> createImage(const CreateRequest& request) { return Creation(request).run(); }

}  // namespace image
