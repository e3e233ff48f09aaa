#include <algorithm>
#include <mutex>
#include <numeric>
#include <thread>

#include "image/codec/checksum.h"
#include "image/udif/reader.h"

namespace image::udif {
namespace {

constexpr std::size_t kPieceBytes = 1 << 20;

struct Job {
  const BlockTable* table;
  const Run* run;
};

// Sums all runs, in any number of threads.
class Summing {
 public:
  Summing(const Image& image, const VerifyOptions& options) : image_(image), options_(options) {
    for (const BlockTable& table : image.tables())
      for (const Run& run : table.runs) jobs_.push_back({&table, &run});
    sums_.resize(jobs_.size());
    if (options_.progress == nullptr) return;
    std::uint64_t sectors = 0;
    for (const Job& job : jobs_) sectors += job.run->sectorCount;
    options_.progress->sectorsTotal = sectors;
  }

  base::Result<void> run() {
    {
      std::vector<std::jthread> threads;
      for (unsigned i = 0; i < options_.workers; ++i) threads.emplace_back([this] { work(); });
    }
    if (options_.cancelled != nullptr && *options_.cancelled) return base::Error{"it was interrupted"};
    const std::lock_guard lock(mutex_);
    return failure_ ? base::Result<void>(*failure_) : base::Result<void>();
  }

  const std::vector<Job>& jobs() const { return jobs_; }
  const std::vector<RunSum>& sums() const { return sums_; }

 private:
  void work() {
    RunSummer summer(image_.file());
    while (!ended_ && (options_.cancelled == nullptr || !*options_.cancelled)) {
      const std::size_t at = next_++;
      if (at >= jobs_.size()) return;
      auto summed = sum(jobs_[at], summer);
      if (summed) {
        sums_[at] = *summed;
        if (options_.progress != nullptr) options_.progress->sectorsDone += jobs_[at].run->sectorCount;
        continue;
      }
      const std::lock_guard lock(mutex_);
      if (!failure_) failure_ = summed.error();
      ended_ = true;
    }
  }

  base::Result<RunSum> sum(const Job& job, RunSummer& summer) const {
    const std::uint64_t offset = image_.fileOffset(*job.table, *job.run);
    const auto* known = options_.known == nullptr ? nullptr : options_.known->find(*job.run, offset);
    if (known != nullptr) return *known;
    return summer.sum(*job.run, offset, job.table->name);
  }

  const Image& image_;
  const VerifyOptions& options_;
  std::vector<Job> jobs_;
  std::vector<RunSum> sums_;
  std::atomic<std::size_t> next_ = 0;
  std::atomic<bool> ended_ = false;
  std::mutex mutex_;
  std::optional<base::Error> failure_;
};

base::Result<void> checkTables(const Image& image, const Summing& summing) {
  auto sum = summing.sums().begin();
  for (const BlockTable& table : image.tables()) {
    codec::CRC32 whole;
    for (std::size_t i = 0; i < table.runs.size(); ++i) whole.append((sum++)->plain);
    if (table.checksum && whole.value() != *table.checksum)
      return base::Error{"the checksum of " + table.name + " does not match"};
  }
  const auto isSummed = [](const BlockTable& table) { return table.checksum.has_value(); };
  if (image.trailer().masterChecksum && std::ranges::any_of(image.tables(), isSummed) &&
      !std::ranges::all_of(image.tables(), isSummed))
    return base::Error{"some tables have a checksum and some have none"};
  const auto master = masterChecksum(image.tables());
  if (image.trailer().masterChecksum && master && *master != *image.trailer().masterChecksum)
    return base::Error{"the master checksum does not match"};
  return {};
}

// The stored runs, where they are the whole data fork one after the other, have been read already.
std::optional<codec::CRC32> sumOfRuns(const Image& image, const Summing& summing) {
  std::vector<std::size_t> order(summing.jobs().size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  const auto offset = [&](std::size_t i) {
    return image.fileOffset(*summing.jobs()[i].table, *summing.jobs()[i].run);
  };
  std::ranges::sort(order, {}, offset);
  codec::CRC32 whole;
  for (const std::size_t i : order) {
    if (summing.sums()[i].stored.count() == 0) continue;
    if (offset(i) != image.trailer().dataForkOffset + whole.count()) return std::nullopt;
    whole.append(summing.sums()[i].stored);
  }
  if (whole.count() != image.trailer().dataForkLength) return std::nullopt;
  return whole;
}

base::Result<codec::CRC32> sumOfFork(const Image& image) {
  codec::CRC32 whole;
  std::vector<std::byte> piece;
  while (whole.count() < image.trailer().dataForkLength) {
    piece.resize(static_cast<std::size_t>(
        std::min<std::uint64_t>(kPieceBytes, image.trailer().dataForkLength - whole.count())));
    if (!image.file().read(image.trailer().dataForkOffset + whole.count(), piece))
      return base::Error{"the data fork cannot be read"};
    whole.append(codec::CRC32::of(piece));
  }
  return whole;
}

}  // namespace

base::Result<void> verifyChecksums(const Image& image, const VerifyOptions& options) {
  Summing summing(image, options);
  if (auto done = summing.run(); !done) return done;
  if (auto same = checkTables(image, summing); !same) return same;
  if (!image.trailer().dataChecksum) return {};
  auto whole = sumOfRuns(image, summing);
  if (!whole) {
    auto fork = sumOfFork(image);
    if (!fork) return fork.error();
    whole = *fork;
  }
  if (whole->value() != *image.trailer().dataChecksum)
    return base::Error{"the checksum of the data fork does not match"};
  return {};
}

}  // namespace image::udif
