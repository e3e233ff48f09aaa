#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "image/volume.h"

namespace image::fuse {

// Hands on the data of a folder's small files before anybody asks for them, once some of them were read, in
// the order of their numbers: images are mostly filled in it. Any number of threads may call.
class ReadAhead {
 public:
  // Larger files are left to whoever reads them.
  static constexpr std::size_t kMostBytes = 128 << 10;
  // Files of a folder that are read before others of it are handed on.
  static constexpr unsigned kReadsBefore = 3;

  // Takes all bytes of a file; false where they are of no use. Called on one thread, which starts when it is
  // needed first and has the signal mask of who calls wasRead() then.
  using Take = std::function<bool(std::uint32_t id, std::span<std::byte> bytes)>;

  // The volume outlives it.
  ReadAhead(const Volume& volume, Take take) : volume_(volume), take_(std::move(take)) {}
  // Waits for a Take that has begun.
  ~ReadAhead() { stop(); }

  // The files of one folder, in any order; of those that nobody reads, only the last listed are remembered.
  void wasListed(std::vector<std::uint32_t> files);
  void wasRead(std::uint32_t file);
  // Nothing more is taken, but what has begun; hasStopped() says when that is over.
  void stop();
  bool hasStopped() const { return !isRunning_; }

 private:
  struct Folder {
    std::vector<std::uint32_t> files;  // ascending
    unsigned reads = 0;
    // From `first` on and around, so many were handed on, and so many may be for now.
    std::size_t first = 0;
    std::size_t given = 0;
    std::size_t allowed = 0;
    unsigned useless = 0;
  };
  using FolderPointer = std::shared_ptr<Folder>;
  struct Next {
    FolderPointer folder;
    std::uint32_t file = 0;
  };

  FolderPointer folderOf(std::uint32_t file) REQUIRES(mutex_);
  void run();
  // Without a folder when it is to end.
  Next waitForNext();
  void note(Folder& folder, bool wasTaken);

  const Volume& volume_;
  const Take take_;

  base::Mutex mutex_;
  std::condition_variable_any wanted_;
  std::deque<FolderPointer> listed_ GUARDED_BY(mutex_);
  std::size_t filesListed_ GUARDED_BY(mutex_) = 0;
  FolderPointer current_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::atomic<bool> isRunning_ = false;
  std::jthread thread_;
};

}  // namespace image::fuse
