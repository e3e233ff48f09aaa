#include "image/udif/read_back.h"

#include <utility>

namespace image::udif {
namespace {

// Disks that turn would lose their time between writing here and reading there if it went chunk by chunk.
constexpr std::uint64_t kBatchBytes = 32 << 20;

}  // namespace

ReadBack::ReadBack(std::unique_ptr<base::RandomAccess> file, Options options)
    : file_(std::move(file)), options_(std::move(options)) {
  for (unsigned i = 0; i < options_.threads; ++i) threads_.emplace_back([this] { work(); });
}

ReadBack::~ReadBack() {
  {
    base::MutexLock lock(mutex_);
    stopped_ = true;
  }
  changed_.notify_all();
}

void ReadBack::expect(const Run& run, const RunSum& sum, const std::string& region) {
  base::MutexLock lock(mutex_);
  expected_.push_back({run, sum, region});
}

void ReadBack::written(std::uint64_t offset, std::uint64_t length) {
  {
    base::MutexLock lock(mutex_);
    apart_[offset] = offset + length;
    extendPrefix();
    if (prefix_ - released_ < kBatchBytes) return;
    released_ = prefix_;
  }
  changed_.notify_all();
}

void ReadBack::extendPrefix() {
  for (auto first = apart_.begin(); first != apart_.end() && first->first <= prefix_;
       first = apart_.begin()) {
    prefix_ = std::max(prefix_, first->second);
    apart_.erase(first);
  }
}

void ReadBack::finish() {
  {
    base::MutexLock lock(mutex_);
    finishing_ = true;
    released_ = prefix_;
  }
  changed_.notify_all();
  threads_.clear();
}

bool ReadBack::isReadable(const Run& run) const { return run.offset + run.length <= released_; }

std::optional<ReadBack::Expected> ReadBack::next() {
  base::MutexLock lock(mutex_);
  while (!stopped_ && !finishing_ && (expected_.empty() || !isReadable(expected_.front().run)))
    changed_.wait(mutex_);
  if (stopped_ || expected_.empty()) return std::nullopt;
  std::optional<Expected> next(std::move(expected_.front()));
  expected_.pop_front();
  return next;
}

void ReadBack::work() {
  RunSummer summer(*file_);
  while (const auto expected = next()) {
    auto found = summer.sum(expected->run, expected->run.offset, expected->region);
    if (found && *found != expected->sum) found = damagedRun(expected->run, expected->region);
    if (!found) return options_.failed(base::Error{"read back from disk, " + found.error().message});
    base::MutexLock lock(mutex_);
    options_.sums.add(expected->run, expected->run.offset, *found);
  }
}

}  // namespace image::udif
