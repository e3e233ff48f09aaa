#include "image/extract.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>

#include "base/mutex.h"
#include "image/contents.h"
#include "image/hfs/tree.h"
#include "image/os/host.h"
#include "image/os/host_folder.h"

namespace image {
namespace {

using Index = Contents::Index;
using os::HostFolder;
using os::Made;
using os::MadeItem;

// Larger files are written by several threads, so much at a time.
constexpr std::size_t kRangeBytes = std::size_t{4} << 20;
// Small files of one folder that one thread takes together.
constexpr std::size_t kBatchItems = 256;
constexpr std::uint64_t kBatchBytes = kRangeBytes;

constexpr const char* kSameName = "another item of the image has the same name there";

enum class Place : std::uint8_t { fresh, existing, skipped };

std::uint16_t typeOf(ItemKind kind) {
  switch (kind) {
    case ItemKind::folder:
      return hfs::mode::kFolder;
    case ItemKind::file:
      return hfs::mode::kRegular;
    case ItemKind::symbolicLink:
      return hfs::mode::kSymbolicLink;
    case ItemKind::fifo:
      return hfs::mode::kFIFO;
    case ItemKind::socket:
      return hfs::mode::kSocket;
    case ItemKind::characterDevice:
      return hfs::mode::kCharacterDevice;
    case ItemKind::blockDevice:
      return hfs::mode::kBlockDevice;
  }
  return 0;
}

std::timespec timeOf(const Instant& instant) {
  return {.tv_sec = instant.seconds, .tv_nsec = static_cast<long>(instant.nanoseconds)};
}

std::uint64_t progressOf(const Item& item) { return 1 + item.size / 512; }

// Finds the target's folders by their entries; remembers the last one. One thread at a time.
class Way {
 public:
  Way(const Contents& contents, const HostFolder& top) : contents_(contents), top_(top) {}

  // Valid until the next call. The Error holds the reason only.
  base::Result<const HostFolder*> open(Index folder) {
    std::vector<Index> steps;
    Index at = folder;
    for (; at != Contents::kRoot && at != current_; at = contents_[at].parent) steps.push_back(at);
    if (at == Contents::kRoot) folder_.reset();
    current_ = Contents::kNone;
    for (; !steps.empty(); steps.pop_back()) {
      auto next = (folder_ ? *folder_ : top_).openFolder(std::string(contents_.name(steps.back())));
      if (!next) return next.error();
      folder_.emplace(std::move(*next));
    }
    if (folder != Contents::kRoot) current_ = folder;
    return folder_ ? &*folder_ : &top_;
  }

 private:
  const Contents& contents_;
  const HostFolder& top_;
  Index current_ = Contents::kNone;
  std::optional<HostFolder> folder_;
};

// What could not be given, told once for all items that lack the same for the same reason.
class LeftOutParts {
 public:
  void add(const std::string& what, const std::string& reason, Index entry) {
    const base::MutexLock lock(mutex_);
    auto& part = parts_.try_emplace({what, reason}, Part{.first = entry}).first->second;
    part.first = std::min(part.first, entry);
    ++part.count;
  }

  std::vector<std::string> texts(const Contents& contents) const {
    const base::MutexLock lock(mutex_);
    std::vector<std::string> texts;
    for (const auto& [key, part] : parts_) {
      std::string text =
          key.first + " of " + (part.first == Contents::kRoot ? "/" : contents.path(part.first));
      if (part.count > 1) text += " and " + std::to_string(part.count - 1) + " more";
      texts.push_back(text + ": " + key.second);
    }
    return texts;
  }

 private:
  struct Part {
    Index first = 0;
    std::uint64_t count = 0;
  };

  mutable base::Mutex mutex_;
  std::map<std::pair<std::string, std::string>, Part> parts_ GUARDED_BY(mutex_);
};

// Removes what it names when it goes away, unless that turned out well.
class Unfinished {
 public:
  Unfinished(const HostFolder& folder, std::string name) : folder_(&folder), name_(std::move(name)) {}
  ~Unfinished() {
    if (folder_ != nullptr) folder_->remove(name_);
  }
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;

  void keep() { folder_ = nullptr; }
  const std::string& name() const { return name_; }

 private:
  const HostFolder* folder_;
  std::string name_;
};

// A file that several threads write.
struct LargeFile {
  explicit LargeFile(Index which, std::uint64_t ranges) : entry(which), rangesLeft(ranges) {}

  const Index entry;
  std::atomic<std::uint64_t> rangesLeft;
  base::Mutex mutex;
  // Set by the first who comes, under the mutex, before anybody else goes on; in this order, so that the name
  // is removed while the folder is still open.
  std::unique_ptr<HostFolder> folder;
  std::optional<MadeItem> file;
  std::optional<Unfinished> unfinished;
};

class Extraction {
 public:
  Extraction(const Volume& volume, const ExtractRequest& request, Contents contents, HostFolder top,
             bool isNew)
      : volume_(volume),
        request_(request),
        contents_(std::move(contents)),
        top_(std::move(top)),
        places_(contents_.entries().size(), Place::fresh) {
    if (!isNew) places_[Contents::kRoot] = Place::existing;
  }

  base::Result<ExtractReport> run() {
    startProgress();
    for (const auto step : {&Extraction::findExisting, &Extraction::makeFolders, &Extraction::writeItems,
                            &Extraction::makeHardLinks, &Extraction::finishFolders})
      if (auto done = (this->*step)(); !done) return done.error();
    auto leftOut = leftOut_.texts(contents_);
    report_.leftOut.insert(report_.leftOut.end(), leftOut.begin(), leftOut.end());
    const base::MutexLock lock(mutex_);
    for (const auto* lost : {&unreadable_, &lostAttributes_})
      for (const auto& [entry, reason] : *lost)
        report_.unreadable.push_back(contents_.path(entry) + ": " + reason);
    return std::move(report_);
  }

 private:
  // What one thread has for itself.
  struct Worker {
    Way way;
    std::vector<std::byte> buffer{};
  };
  // Items of one folder, or a part of a large file.
  struct Job {
    std::size_t first = 0;
    std::size_t count = 0;
    LargeFile* large = nullptr;
    std::uint64_t offset = 0;
  };

  const Item& item(Index entry) const { return contents_[entry].item; }
  std::string name(Index entry) const { return std::string(contents_.name(entry)); }
  bool isFolder(Index entry) const { return item(entry).kind == ItemKind::folder; }

  base::Error at(Index entry, const std::string& reason) const {
    const std::string below = contents_.path(entry);
    return {request_.folder + (below.empty() ? "" : "/") + below + ": " + reason};
  }

  bool isCancelled() const { return request_.cancelled != nullptr && *request_.cancelled; }
  static base::Error interrupted() { return {"it was interrupted"}; }
  base::Error failed(Index entry, const base::Error& reason) const {
    return isCancelled() ? interrupted() : at(entry, reason.message);
  }

  // Leaves the item out; the extraction goes on.
  base::Error unreadable(Index entry, const base::Error& reason) {
    const base::MutexLock lock(mutex_);
    if (!unreadable_.contains(entry)) unreadable_.emplace(entry, reason.message);
    return reason;
  }
  bool isUnreadable(Index entry) {
    const base::MutexLock lock(mutex_);
    return unreadable_.contains(entry);
  }
  // What was done for an item, but for an Error in reading it.
  base::Result<void> judged(Index entry, const base::Result<void>& done) {
    if (done || isUnreadable(entry)) return {};
    return failed(entry, done.error());
  }

  void startProgress() {
    if (request_.progress == nullptr) return;
    std::uint64_t total = 0;
    for (const auto& entry : contents_.entries()) total += progressOf(entry.item);
    request_.progress->sectorsTotal = total;
  }
  void advance(std::uint64_t sectors) const {
    if (request_.progress != nullptr) request_.progress->sectorsDone += sectors;
  }

  // Refuses what would be overwritten unasked, and two items that would be one.
  base::Result<void> findExisting() {
    const auto empty = top_.isEmpty();
    if (!empty) return at(Contents::kRoot, empty.error().message);
    if (*empty) return {};
    Way way(contents_, top_);
    std::set<os::ExistingItem> folders;
    for (Index entry = 1; entry < contents_.entries().size(); ++entry) {
      const Index parent = contents_[entry].parent;
      if (isCancelled()) return interrupted();
      if (places_[parent] != Place::existing) continue;
      const auto folder = way.open(parent);
      if (!folder) return at(parent, folder.error().message);
      const auto found = (*folder)->look(name(entry));
      if (!found) return at(entry, found.error().message);
      if (!*found) continue;
      if (isFolder(entry) != (*found)->isFolder)
        return at(entry, (*found)->isFolder ? "a folder is there already"
                                            : "something that is no folder is there already");
      if (isFolder(entry) && !folders.insert(**found).second) return at(entry, kSameName);
      if (!isFolder(entry) && !request_.overwrites) return at(entry, "it exists already");
      places_[entry] = Place::existing;
    }
    return {};
  }

  base::Result<void> makeFolders() {
    Way way(contents_, top_);
    for (Index entry = 0; entry < contents_.entries().size(); ++entry) {
      if (!isFolder(entry)) continue;
      if (isCancelled()) return interrupted();
      if (entry != Contents::kRoot) ++report_.folders;
      if (entry == Contents::kRoot || places_[entry] == Place::existing) continue;
      const auto parent = way.open(contents_[entry].parent);
      if (!parent) return at(contents_[entry].parent, parent.error().message);
      const auto made = (*parent)->makeFolder(name(entry));
      if (!made) return at(entry, made.error().message);
      if (*made != Made::yes)
        return at(entry, *made == Made::existsAlready ? kSameName : "no folder can be made there");
    }
    return {};
  }

  // The other names of files that have several come later.
  bool isLaterLink(Index entry) {
    if (item(entry).kind != ItemKind::file || item(entry).links < 2) return false;
    const auto [first, isFirst] = firstLinks_.try_emplace(item(entry).id, entry);
    if (!isFirst) laterLinks_.emplace_back(entry, first->second);
    return !isFirst;
  }

  // In each folder in the order in which the items were numbered, as their data is most likely stored in it.
  void planFolder(Index folder) {
    const std::size_t begin = order_.size();
    for (Index i = 0; i < contents_[folder].children; ++i) {
      const Index entry = contents_[folder].firstChild + i;
      if (!isFolder(entry) && !isLaterLink(entry)) order_.push_back(entry);
    }
    std::sort(order_.begin() + static_cast<std::ptrdiff_t>(begin), order_.end(),
              [&](Index a, Index b) { return item(a).id < item(b).id; });
    Job batch{.first = begin};
    std::uint64_t bytes = 0;
    for (std::size_t i = begin; i < order_.size(); ++i) {
      const std::uint64_t size = item(order_[i]).size;
      const bool isLarge = item(order_[i]).kind == ItemKind::file && size > kRangeBytes;
      if (batch.count != 0 && (isLarge || batch.count == kBatchItems || bytes + size > kBatchBytes)) {
        jobs_.push_back(batch);
        batch = {.first = i};
        bytes = 0;
      }
      if (isLarge) {
        planLarge(order_[i]);
        batch.first = i + 1;
      } else {
        ++batch.count;
        bytes += size;
      }
    }
    if (batch.count != 0) jobs_.push_back(batch);
  }

  void planLarge(Index entry) {
    const std::uint64_t size = item(entry).size;
    large_.push_back(std::make_unique<LargeFile>(entry, (size - 1) / kRangeBytes + 1));
    for (std::uint64_t offset = 0; offset < size; offset += kRangeBytes)
      jobs_.push_back({.large = large_.back().get(), .offset = offset});
  }

  base::Result<void> writeItems() {
    for (Index entry = 0; entry < contents_.entries().size(); ++entry)
      if (isFolder(entry)) planFolder(entry);
    const auto wanted = request_.workers == 0 ? os::processors() : request_.workers;
    const auto count = std::min<std::size_t>(wanted, jobs_.size());
    {
      std::vector<std::jthread> threads;
      for (std::size_t i = 1; i < count; ++i) threads.emplace_back([this] { work(); });
      work();
    }
    // What is not whole goes away with it.
    large_.clear();
    const base::MutexLock lock(mutex_);
    if (error_) return *error_;
    return {};
  }

  void work() {
    Worker worker{.way = Way(contents_, top_)};
    while (!stopped_) {
      const std::size_t next = nextJob_++;
      if (next >= jobs_.size()) return;
      if (auto done = run(jobs_[next], worker); !done) stop(done.error());
    }
  }

  void stop(const base::Error& error) {
    const base::MutexLock lock(mutex_);
    if (!error_) error_ = error;
    stopped_ = true;
  }

  base::Result<void> run(const Job& job, Worker& worker) {
    if (job.large != nullptr) return judged(job.large->entry, writeRange(*job.large, job.offset, worker));
    const Index parent = contents_[order_[job.first]].parent;
    const auto folder = worker.way.open(parent);
    if (!folder) return at(parent, folder.error().message);
    for (std::size_t i = job.first; i < job.first + job.count && !stopped_; ++i) {
      if (isCancelled()) return interrupted();
      if (auto made = judged(order_[i], makeItem(**folder, order_[i], worker)); !made) return made;
      advance(progressOf(item(order_[i])));
    }
    return {};
  }

  // From here on Errors hold the reason only.

  base::Result<void> makeItem(const HostFolder& folder, Index entry, Worker& worker) {
    if (item(entry).kind == ItemKind::file)
      return place(folder, entry, [&](const std::string& as) { return makeFile(folder, as, entry, worker); });
    return place(folder, entry, [&](const std::string& as) { return makeOther(folder, as, entry); });
  }

  // Lets `make` give the item its name, or where that is another's, one beside it that then replaces the
  // other.
  template <class Make>
  base::Result<void> place(const HostFolder& folder, Index entry, const Make& make) {
    const bool replaces = places_[entry] == Place::existing;
    const std::string as = replaces ? HostFolder::unfinishedName() : name(entry);
    const auto made = make(as);
    if (!made) return made.error();
    if (*made == Made::existsAlready) return base::Error{kSameName};
    if (*made == Made::notPossible) return leaveOutItem(entry);
    ++filesMade_;
    if (!replaces) return {};
    Unfinished unfinished(folder, as);
    return giveName(folder, entry, unfinished);
  }

  base::Result<void> leaveOutItem(Index entry) {
    static constexpr std::array kKinds{
        "folders", "files", "symbolic links", "fifos", "sockets", "character devices", "block devices"};
    const base::MutexLock lock(mutex_);
    report_.leftOut.push_back(contents_.path(entry) + ": there can be no " +
                              kKinds[static_cast<std::size_t>(item(entry).kind)] + " there");
    return {};
  }

  // The name that the item is to have, in place of what was there before the extraction began, never of what
  // the extraction itself has put there.
  base::Result<void> giveName(const HostFolder& folder, Index entry, Unfinished& unfinished) {
    const bool replaces = places_[entry] == Place::existing;
    const base::MutexLock lock(replacing_);
    if (replaces) {
      const auto old = folder.look(name(entry));
      if (!old) return old.error();
      if (*old && replacements_.contains(**old)) return base::Error{kSameName};
    }
    const auto named = folder.rename(unfinished.name(), name(entry), replaces);
    if (!named) return named.error();
    if (*named != Made::yes)
      return base::Error{*named == Made::existsAlready ? kSameName : "it cannot be renamed"};
    unfinished.keep();
    if (!replaces) return {};
    const auto now = folder.look(name(entry));
    if (!now) return now.error();
    if (*now) replacements_.insert(**now);
    return {};
  }

  base::Result<Made> makeFile(const HostFolder& folder, const std::string& as, Index entry, Worker& worker) {
    const std::uint64_t size = item(entry).size;
    auto piece = readPiece(entry, 0, worker);
    if (!piece) return piece.error();
    const auto attributes = attributesOf(entry);
    const auto file = folder.makeFile(as, attributes.extended.empty() ? item(entry).permissions : 0600);
    if (!file) return file.error();
    if (!*file) return Made::existsAlready;
    Unfinished unfinished(folder, as);
    for (std::uint64_t offset = 0; offset < size; offset += piece->size()) {
      if (offset != 0) piece = readPiece(entry, offset, worker);
      if (!piece) return piece.error();
      if (auto written = (*file)->write(offset, *piece); !written) return written.error();
    }
    // Only then may the last block have been left out.
    if (size % 4096 == 0 && size != 0)
      if (auto sized = (*file)->setSize(size); !sized) return sized.error();
    if (auto given = give(**file, entry, attributes); !given) return given.error();
    unfinished.keep();
    return Made::yes;
  }

  base::Result<std::span<const std::byte>> readPiece(Index entry, std::uint64_t offset, Worker& worker) {
    if (isCancelled()) return interrupted();
    const auto size =
        static_cast<std::size_t>(std::min<std::uint64_t>(kRangeBytes, item(entry).size - offset));
    if (worker.buffer.size() < size) worker.buffer.resize(size);
    const std::span into(worker.buffer.data(), size);
    for (std::size_t done = 0; done < size;) {
      const auto got = volume_.read(item(entry).id, offset + done, into.subspan(done));
      if (!got) return unreadable(entry, got.error());
      if (*got == 0) return unreadable(entry, {"it ends early in the image"});
      done += *got;
    }
    bytes_ += size;
    return std::span<const std::byte>(into);
  }

  base::Result<Made> makeOther(const HostFolder& folder, const std::string& as, Index entry) {
    base::Result<Made> made = Made::yes;
    if (item(entry).kind == ItemKind::symbolicLink) {
      const auto target = volume_.linkTarget(item(entry).id);
      if (!target) return unreadable(entry, target.error());
      if (target->empty() || target->find('\0') != std::string::npos)
        return unreadable(entry, {"the image holds a link to what can be no path"});
      made = folder.makeSymbolicLink(as, *target);
    } else {
      made = folder.makeSpecial(as, typeOf(item(entry).kind), item(entry).device);
    }
    if (!made || *made != Made::yes) return made;
    Unfinished unfinished(folder, as);
    const auto opened = folder.openItem(as);
    if (!opened) return opened.error();
    if (auto given = give(*opened, entry, attributesOf(entry)); !given) return given.error();
    unfinished.keep();
    return Made::yes;
  }

  // An item without an attribute that cannot be read is better than none.
  os::ItemAttributes attributesOf(Index entry) {
    const Item& from = item(entry);
    os::ItemAttributes attributes{.permissions = from.permissions,
                                  .user = from.user,
                                  .group = from.group,
                                  .accessed = timeOf(from.accessed),
                                  .modified = timeOf(from.modified)};
    const auto lose = [&](const std::string& what, const base::Error& reason) {
      const base::MutexLock lock(mutex_);
      lostAttributes_.emplace(entry, what + ": " + reason.message);
    };
    const auto names = volume_.attributeNames(from.id);
    if (!names) lose("extended attributes", names.error());
    for (const std::string& each : names ? *names : std::vector<std::string>()) {
      auto value = volume_.attribute(from.id, each);
      if (!value) lose("extended attribute " + each, value.error());
      if (value && *value) attributes.extended.push_back({each, std::move(**value)});
    }
    return attributes;
  }

  base::Result<void> give(const MadeItem& made, Index entry, const os::ItemAttributes& attributes) {
    const auto leftOut = made.give(attributes);
    if (!leftOut) return leftOut.error();
    for (const os::LeftOut& part : *leftOut) leftOut_.add(part.what, part.reason, entry);
    return {};
  }

  base::Result<void> writeRange(LargeFile& large, std::uint64_t offset, Worker& worker) {
    if (isUnreadable(large.entry)) return {};
    if (auto begun = beginLarge(large, worker); !begun) return begun;
    const auto piece = readPiece(large.entry, offset, worker);
    if (!piece) return piece.error();
    if (auto written = large.file->write(offset, *piece); !written) return written;
    advance(piece->size() / 512);
    return --large.rangesLeft == 0 ? finishLarge(large) : base::Result<void>();
  }

  base::Result<void> beginLarge(LargeFile& large, Worker& worker) {
    const base::MutexLock lock(large.mutex);
    if (large.unfinished) return {};
    const auto folder = worker.way.open(contents_[large.entry].parent);
    if (!folder) return folder.error();
    auto own = (*folder)->openFolder(".");
    if (!own) return own.error();
    large.folder = std::make_unique<HostFolder>(std::move(*own));
    const std::string as = HostFolder::unfinishedName();
    auto file = large.folder->makeFile(as, 0600);
    if (!file) return file.error();
    if (!*file) return base::Error{kSameName};
    large.file = std::move(*file);
    large.unfinished.emplace(*large.folder, as);
    return large.file->setSize(item(large.entry).size);
  }

  base::Result<void> finishLarge(LargeFile& large) {
    if (auto given = give(*large.file, large.entry, attributesOf(large.entry)); !given) return given;
    if (auto named = giveName(*large.folder, large.entry, *large.unfinished); !named) return named;
    ++filesMade_;
    large.file.reset();
    large.folder.reset();
    return {};
  }

  // Where there are no hard links, each name becomes a file of its own.
  base::Result<void> makeHardLinks() {
    Worker worker{.way = Way(contents_, top_)};
    Way firstWay(contents_, top_);
    for (const auto& [entry, first] : laterLinks_) {
      if (isCancelled()) return interrupted();
      if (isUnreadable(first)) {
        unreadable(entry, {"it is the same file as " + contents_.path(first)});
        continue;
      }
      const auto folder = worker.way.open(contents_[entry].parent);
      if (!folder) return at(contents_[entry].parent, folder.error().message);
      const auto firstFolder = firstWay.open(contents_[first].parent);
      if (!firstFolder) return at(contents_[first].parent, firstFolder.error().message);
      const HostFolder& into = **folder;
      const HostFolder& from = **firstFolder;
      const auto made = place(into, entry, [&](const std::string& as) -> base::Result<Made> {
        // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): there is a folder where there is no error
        auto linked = into.makeHardLink(as, from, name(first));
        if (!linked || *linked != Made::notPossible) return linked;
        leftOut_.add("hard link", "there are none there; it is a file of its own", entry);
        return makeFile(into, as, entry, worker);
      });
      if (auto done = judged(entry, made); !done) return done;
      advance(progressOf(item(entry)));
    }
    return {};
  }

  // Inner ones first: afterwards a folder may not let its owner in.
  base::Result<void> finishFolders() {
    Way way(contents_, top_);
    for (auto entry = static_cast<Index>(contents_.entries().size()); entry-- > 0;) {
      if (!isFolder(entry)) continue;
      advance(progressOf(item(entry)));
      if (places_[entry] == Place::existing && (entry == Contents::kRoot || !request_.overwrites)) continue;
      if (auto finished = finishFolder(way, entry); !finished) return at(entry, finished.error().message);
    }
    report_.files = filesMade_;
    report_.bytes = bytes_;
    return {};
  }

  base::Result<void> finishFolder(Way& way, Index entry) {
    const auto folder = way.open(entry);
    if (!folder) return folder.error();
    const auto self = (*folder)->self();
    if (!self) return self.error();
    return give(*self, entry, attributesOf(entry));
  }

  const Volume& volume_;
  const ExtractRequest& request_;
  const Contents contents_;
  const HostFolder top_;
  // By entry. Settled before anything is written.
  std::vector<Place> places_;
  ExtractReport report_;
  LeftOutParts leftOut_;

  std::unordered_map<std::uint32_t, Index> firstLinks_;
  // With the first name of the same file.
  std::vector<std::pair<Index, Index>> laterLinks_;
  std::vector<Index> order_;
  std::vector<Job> jobs_;
  std::vector<std::unique_ptr<LargeFile>> large_;

  std::atomic<std::size_t> nextJob_ = 0;
  std::atomic<bool> stopped_ = false;
  std::atomic<std::uint64_t> filesMade_ = 0;
  std::atomic<std::uint64_t> bytes_ = 0;
  base::Mutex mutex_;
  std::optional<base::Error> error_ GUARDED_BY(mutex_);
  std::multimap<Index, std::string> unreadable_ GUARDED_BY(mutex_);
  std::multimap<Index, std::string> lostAttributes_ GUARDED_BY(mutex_);
  base::Mutex replacing_;
  std::set<os::ExistingItem> replacements_ GUARDED_BY(replacing_);
};

}  // namespace

base::Result<ExtractReport> extract(const Volume& volume, const ExtractRequest& request) {
  auto contents = Contents::read(volume, request.paths, request.cancelled);
  if (!contents) return contents.error();
  const auto isNew = HostFolder::make(request.folder);
  if (!isNew) return base::Error{request.folder + ": " + isNew.error().message};
  auto top = HostFolder::open(request.folder);
  if (!top) return base::Error{request.folder + ": " + top.error().message};
  return Extraction(volume, request, std::move(*contents), std::move(*top), *isNew).run();
}

}  // namespace image
