#include "image/fuse/read_ahead.h"

#include <algorithm>

namespace image::fuse {
namespace {

constexpr std::size_t kMostFiles = 1 << 17;
constexpr std::size_t kMostFolders = 1024;
// How many files are handed on for one that was read; twice as many for each one more.
constexpr std::size_t kFirstPart = 64;
constexpr unsigned kMostDoublings = 6;
// After so many in a row nobody has looked at those that follow.
constexpr unsigned kMostUseless = 32;

}  // namespace

void ReadAhead::wasListed(std::vector<std::uint32_t> files) {
  if (files.size() <= kReadsBefore || files.size() > kMostFiles) return;
  std::ranges::sort(files);
  const base::MutexLock lock(mutex_);
  if (const auto known = folderOf(files.front()); known && known->files == files) return;
  filesListed_ += files.size();
  listed_.push_back(std::make_shared<Folder>(Folder{.files = std::move(files)}));
  for (; filesListed_ > kMostFiles || listed_.size() > kMostFolders; listed_.pop_front())
    filesListed_ -= listed_.front()->files.size();
}

ReadAhead::FolderPointer ReadAhead::folderOf(std::uint32_t file) {
  const auto has = [&](const FolderPointer& folder) {
    const auto& files = folder->files;
    return files.front() <= file && file <= files.back() && std::ranges::binary_search(files, file);
  };
  if (current_ && has(current_)) return current_;
  const auto found = std::find_if(listed_.rbegin(), listed_.rend(), has);
  return found == listed_.rend() ? nullptr : *found;
}

void ReadAhead::wasRead(std::uint32_t file) {
  const base::MutexLock lock(mutex_);
  const auto folder = stopped_ ? nullptr : folderOf(file);
  if (!folder || ++folder->reads < kReadsBefore) return;
  const auto& files = folder->files;
  if (folder->given == 0)
    folder->first = static_cast<std::size_t>(std::ranges::upper_bound(files, file) - files.begin());
  const unsigned doublings = std::min(folder->reads - kReadsBefore, kMostDoublings);
  if (folder->given >= folder->allowed)
    folder->allowed = std::min(files.size(), folder->given + (kFirstPart << doublings));
  current_ = folder;
  if (!thread_.joinable()) {
    isRunning_ = true;
    thread_ = std::jthread([this] { run(); });
  }
  wanted_.notify_one();
}

void ReadAhead::stop() {
  const base::MutexLock lock(mutex_);
  stopped_ = true;
  wanted_.notify_one();
}

void ReadAhead::run() {
  std::vector<std::byte> buffer(kMostBytes + 1);
  for (Next next = waitForNext(); next.folder; next = waitForNext()) {
    const auto bytes = volume_.read(next.file, 0, buffer);
    // What is no small file says nothing of the others; whoever reads it is told what is wrong with it.
    if (bytes && *bytes != 0 && *bytes <= kMostBytes)
      note(*next.folder, take_(next.file, std::span(buffer).first(*bytes)));
  }
  isRunning_ = false;
}

ReadAhead::Next ReadAhead::waitForNext() {
  const base::MutexLock lock(mutex_);
  while (!stopped_ && (!current_ || current_->given >= current_->allowed)) wanted_.wait(mutex_);
  if (stopped_) return {};
  Folder& folder = *current_;
  return {current_, folder.files[(folder.first + folder.given++) % folder.files.size()]};
}

void ReadAhead::note(Folder& folder, bool wasTaken) {
  const base::MutexLock lock(mutex_);
  folder.useless = wasTaken ? 0 : folder.useless + 1;
  if (folder.useless >= kMostUseless) folder.allowed = folder.given;
}

}  // namespace image::fuse
