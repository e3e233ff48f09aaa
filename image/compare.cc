#include "image/compare.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>

#include "base/mutex.h"
#include "image/contents.h"
#include "image/item_kind.h"
#include "image/os/host.h"
#include "image/os/host_folder.h"

namespace image {
namespace {

using Index = Contents::Index;
using os::HostFolder;
using os::HostItem;

constexpr std::size_t kRangeBytes = std::size_t{1} << 20;
// Files of one folder that one thread reads together.
constexpr std::size_t kBatchItems = 256;
constexpr std::uint64_t kBatchBytes = std::uint64_t{4} << 20;

std::string joined(const std::string& folder, std::string_view name) {
  return folder.empty() ? std::string(name) : folder + "/" + std::string(name);
}

class Comparison {
 public:
  Comparison(const Volume& volume, const CompareRequest& request, Contents contents, HostFolder top)
      : volume_(volume), request_(request), contents_(std::move(contents)), top_(std::move(top)) {}

  base::Result<std::vector<Difference>> run() {
    folders_.push_back({Contents::kRoot, ""});
    for (; !folders_.empty(); folders_.pop_front()) {
      if (isCancelled()) return interrupted();
      if (auto compared = compareFolder(folders_.front()); !compared) return compared.error();
    }
    if (auto read = readFiles(); !read) return read.error();
    std::ranges::sort(differences_, {}, &Difference::path);
    return std::move(differences_);
  }

 private:
  // A folder that both have, or that only the host has.
  struct Folder {
    Index entry = Contents::kNone;
    std::string path;
  };
  // Files of one folder, or a part of one file, whose contents may differ.
  struct Job {
    std::string folder;
    std::vector<Index> entries{};
    std::uint64_t offset = 0;
    std::uint64_t bytes = 0;
  };

  bool isCancelled() const { return request_.cancelled != nullptr && *request_.cancelled; }
  static base::Error interrupted() { return {"it was interrupted"}; }
  base::Error at(const std::string& path, const std::string& reason) const {
    return {request_.folder + (path.empty() ? "" : "/") + path + ": " + reason};
  }

  base::Result<void> compareFolder(const Folder& folder) {
    const auto opened = top_.openPath(folder.path);
    if (!opened) return at(folder.path, opened.error().message);
    auto items = opened->list();
    if (!items) return at(folder.path, items.error().message);
    std::ranges::sort(*items, {}, &HostItem::name);
    std::vector<bool> known(items->size());
    Job job{.folder = folder.path};
    const bool isInImage = folder.entry != Contents::kNone;
    for (Index i = 0; isInImage && i < contents_[folder.entry].children; ++i) {
      const Index entry = contents_[folder.entry].firstChild + i;
      const auto found = std::ranges::lower_bound(*items, contents_.name(entry), {}, &HostItem::name);
      if (found == items->end() || found->name != contents_.name(entry)) {
        addRemoved(entry);
        continue;
      }
      known[static_cast<std::size_t>(found - items->begin())] = true;
      if (auto compared = compareItem(*opened, entry, *found, job); !compared) return compared;
    }
    finish(job);
    for (std::size_t i = 0; i < known.size(); ++i)
      if (!known[i]) addAdded(joined(folder.path, (*items)[i].name), (*items)[i]);
    return {};
  }

  void addRemoved(Index top) {
    std::vector<Index> left{top};
    while (!left.empty()) {
      const Index entry = left.back();
      left.pop_back();
      differences_.push_back({contents_.path(entry), Change::removed});
      for (Index i = 0; i < contents_[entry].children; ++i) left.push_back(contents_[entry].firstChild + i);
    }
  }

  void addAdded(const std::string& path, const HostItem& item) {
    differences_.push_back({path, Change::added});
    if (kindOfMode(item.mode) == ItemKind::folder) folders_.push_back({Contents::kNone, path});
  }

  base::Result<void> compareItem(const HostFolder& folder, Index entry, const HostItem& found, Job& job) {
    const Item& item = contents_[entry].item;
    const std::string path = joined(job.folder, found.name);
    if (kindOfMode(found.mode) != item.kind) {
      addKind(entry, path, found);
      return {};
    }
    std::vector<std::string_view> what;
    const bool isDevice = item.kind == ItemKind::characterDevice || item.kind == ItemKind::blockDevice;
    if ((item.kind == ItemKind::file && item.size != found.size) || (isDevice && item.device != found.device))
      what.emplace_back("contents");
    else if (item.kind == ItemKind::file && !request_.isQuick)
      add(job, entry);
    // Links have no permissions of their own.
    if (item.kind != ItemKind::symbolicLink && item.permissions != (found.mode & 07777))
      what.emplace_back("mode");
    if (item.user != found.user || item.group != found.group) what.emplace_back("owner");
    if (item.modified.seconds != found.modified.tv_sec ||
        item.modified.nanoseconds != static_cast<std::uint64_t>(found.modified.tv_nsec))
      what.emplace_back("date");
    if (item.kind == ItemKind::symbolicLink) {
      const auto same = isSameTarget(folder, item, found);
      if (!same) return at(path, same.error().message);
      if (!*same) what.emplace_back("target");
    }
    if (item.kind == ItemKind::folder) folders_.push_back({entry, path});
    if (!what.empty()) {
      changed_.emplace(entry, differences_.size());
      differences_.push_back({path, Change::changed, std::move(what)});
    }
    return {};
  }

  void addKind(Index entry, const std::string& path, const HostItem& found) {
    differences_.push_back({path, Change::changed, {"kind"}});
    for (Index i = 0; i < contents_[entry].children; ++i) addRemoved(contents_[entry].firstChild + i);
    if (kindOfMode(found.mode) == ItemKind::folder) folders_.push_back({Contents::kNone, path});
  }

  base::Result<bool> isSameTarget(const HostFolder& folder, const Item& item, const HostItem& found) const {
    const auto here = folder.linkTarget(found.name);
    if (!here) return here.error();
    const auto there = volume_.linkTarget(item.id);
    if (!there) return there.error();
    return *here == *there;
  }

  // Puts a file of the same size where its bytes will be compared.
  void add(Job& job, Index entry) {
    const std::uint64_t size = contents_[entry].item.size;
    if (size > kBatchBytes) {
      for (std::uint64_t offset = 0; offset < size; offset += kBatchBytes)
        jobs_.push_back({job.folder, {entry}, offset, std::min(kBatchBytes, size - offset)});
      return;
    }
    if (size == 0) return;
    if (job.entries.size() == kBatchItems || job.bytes + size > kBatchBytes) finish(job);
    job.entries.push_back(entry);
    job.bytes += size;
  }
  void finish(Job& job) {
    if (!job.entries.empty()) jobs_.push_back({job.folder, std::exchange(job.entries, {})});
    job.bytes = 0;
  }

  base::Result<void> readFiles() {
    const auto wanted = request_.workers == 0 ? os::processors() : request_.workers;
    {
      std::vector<std::jthread> threads;
      for (std::size_t i = 1; i < std::min<std::size_t>(wanted, jobs_.size()); ++i)
        threads.emplace_back([this] { work(); });
      work();
    }
    const base::MutexLock lock(mutex_);
    if (error_) return *error_;
    for (const Index entry : different_) {
      const auto [place, isNew] = changed_.try_emplace(entry, differences_.size());
      if (isNew) differences_.push_back({contents_.path(entry), Change::changed});
      auto& what = differences_[place->second].what;
      if (what.empty() || what.front() != "contents") what.insert(what.begin(), "contents");
    }
    return {};
  }

  void work() {
    std::vector<std::byte> here(kRangeBytes);
    std::vector<std::byte> there(kRangeBytes);
    while (!stopped_) {
      const std::size_t next = nextJob_++;
      if (next >= jobs_.size()) return;
      if (auto done = run(jobs_[next], here, there); !done) {
        const base::MutexLock lock(mutex_);
        if (!error_) error_ = done.error();
        stopped_ = true;
      }
    }
  }

  base::Result<void> run(const Job& job, std::span<std::byte> here, std::span<std::byte> there) {
    const auto folder = top_.openPath(job.folder);
    if (!folder) return at(job.folder, folder.error().message);
    for (const Index entry : job.entries) {
      if (isCancelled()) return interrupted();
      const std::uint64_t bytes = job.bytes == 0 ? contents_[entry].item.size : job.bytes;
      const auto same = isSame(*folder, entry, {job.offset, job.offset + bytes}, here, there);
      if (!same) return at(contents_.path(entry), same.error().message);
      if (*same) continue;
      const base::MutexLock lock(mutex_);
      different_.push_back(entry);
    }
    return {};
  }

  base::Result<bool> isSame(const HostFolder& folder, Index entry,
                            std::pair<std::uint64_t, std::uint64_t> range, std::span<std::byte> here,
                            std::span<std::byte> there) const {
    const auto file = folder.openFile(std::string(contents_.name(entry)));
    if (!file) return file.error();
    for (std::uint64_t offset = range.first; offset < range.second; offset += kRangeBytes) {
      const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(kRangeBytes, range.second - offset));
      const auto gotHere = file->read(offset, here.first(size));
      if (!gotHere) return gotHere.error();
      const auto gotThere = volume_.read(contents_[entry].item.id, offset, there.first(size));
      if (!gotThere) return gotThere.error();
      if (*gotThere != size) return base::Error{"it ends early in the image"};
      if (*gotHere != size || !std::ranges::equal(here.first(size), there.first(size))) return false;
    }
    return true;
  }

  const Volume& volume_;
  const CompareRequest& request_;
  const Contents contents_;
  const HostFolder top_;
  std::deque<Folder> folders_;
  std::vector<Difference> differences_;
  // Where in the differences an entry stands.
  std::unordered_map<Index, std::size_t> changed_;
  std::vector<Job> jobs_;

  std::atomic<std::size_t> nextJob_ = 0;
  std::atomic<bool> stopped_ = false;
  base::Mutex mutex_;
  std::optional<base::Error> error_ GUARDED_BY(mutex_);
  // More than once where several parts of a file differ.
  std::vector<Index> different_ GUARDED_BY(mutex_);
};

}  // namespace

base::Result<std::vector<Difference>> compare(const Volume& volume, const CompareRequest& request) {
  auto top = HostFolder::open(request.folder);
  if (!top) return base::Error{request.folder + ": " + top.error().message};
  auto contents = Contents::read(volume, {}, request.cancelled);
  if (!contents) return contents.error();
  return Comparison(volume, request, std::move(*contents), std::move(*top)).run();
}

}  // namespace image
