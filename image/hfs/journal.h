#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "base/result.h"
#include "image/block/disk.h"
#include "image/hfs/volume_view.h"

namespace image::hfs {

// A volume as it is once the transactions that its journal still holds (Apple technical note TN1150,
// "Journal") are written where they belong. Nothing is written and next to nothing kept: what the journal has
// is read from there.
class JournaledDisk final : public block::Disk {
 public:
  // Null where the volume's own blocks are all there is: without a journal, unmounted cleanly, last mounted
  // by a system that keeps none, or an empty journal. An Error where the journal is damaged or kept
  // elsewhere. The disk outlives the result.
  static base::Result<std::unique_ptr<JournaledDisk>> replay(const block::Disk& disk,
                                                             const VolumeHeader& header);

  std::uint64_t size() const override { return disk_.size(); }
  base::Result<void> readChecked(std::uint64_t offset, std::span<std::byte> into) const override;

 private:
  // Of the journal, in the byte order of the machine that wrote it.
  class Fields;
  // A part of the volume that the journal has.
  struct Piece {
    std::uint64_t end = 0;
    // Where its bytes are in the journal, which goes on behind its head when it comes to its end.
    std::uint64_t journalOffset = 0;
  };

  explicit JournaledDisk(const block::Disk& disk) : disk_(disk) {}

  base::Result<void> findJournal(const VolumeHeader& header);
  base::Result<void> readHead();
  base::Result<std::uint64_t> readBlockList(std::uint64_t at);
  base::Result<void> readJournal(std::uint64_t at, std::span<std::byte> into) const;
  std::uint64_t wrapped(std::uint64_t at) const { return at < size_ ? at : at - size_ + headBytes_; }
  void put(std::uint64_t offset, std::uint64_t bytes, std::uint64_t journalOffset);

  const block::Disk& disk_;
  // The journal on the disk.
  std::uint64_t offset_ = 0;
  std::uint64_t size_ = 0;
  bool isLittleEndian_ = false;
  // Of the head, and of the unit in which blocks are numbered.
  std::uint64_t headBytes_ = 0;
  std::uint64_t listBytes_ = 0;
  std::uint64_t start_ = 0;
  std::uint64_t end_ = 0;
  // By where on the volume they begin; they do not overlap.
  std::map<std::uint64_t, Piece> pieces_;
};

}  // namespace image::hfs
