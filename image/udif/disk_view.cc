#include "image/udif/disk_view.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <list>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "image/block/zeros.h"
#include "image/udif/chunk_decoder.h"

namespace image::udif {
namespace {

constexpr std::uint64_t kSector = 512;

// What a stored run gives the disk. Where runs overlap, the one that begins first has the sectors.
struct Segment {
  std::uint64_t firstSector;
  std::uint64_t sectorCount;
  // Sectors of the run before the segment's own.
  std::uint64_t skipped;
  const BlockTable* table;
  const Run* run;

  std::uint64_t offset() const { return firstSector * kSector; }
  std::uint64_t end() const { return (firstSector + sectorCount) * kSector; }
  std::uint64_t runBytes() const { return run->sectorCount * kSector; }
  bool isRaw() const { return run->type == RunType::raw; }
};

std::vector<Segment> segmentsOf(const Image& image) {
  std::vector<Segment> segments;
  for (const BlockTable& table : image.tables())
    for (const Run& run : table.runs)
      if (isStored(run.type) && run.sectorCount != 0)
        segments.push_back({table.firstSector + run.firstSector, run.sectorCount, 0, &table, &run});
  std::ranges::stable_sort(segments, {}, &Segment::firstSector);
  std::uint64_t end = 0;
  for (Segment& segment : segments) {
    segment.skipped = std::min(end - std::min(end, segment.firstSector), segment.sectorCount);
    segment.firstSector += segment.skipped;
    segment.sectorCount -= segment.skipped;
    end = std::max(end, segment.firstSector + segment.sectorCount);
  }
  std::erase_if(segments, [](const Segment& segment) { return segment.sectorCount == 0; });
  return segments;
}

// Who reads on and on: remembers the last segments that were read, of several readers at once.
class Streams {
 public:
  // How many segments in a row were read up to this one, by whoever read the one before it; 0 where this one
  // was the last already.
  std::size_t reached(std::size_t segment) {
    ++now_;
    for (Stream& stream : streams_) {
      if (stream.length == 0 || (stream.last != segment && stream.last + 1 != segment)) continue;
      const bool isNew = stream.last != segment;
      if (isNew) ++stream.length;
      stream.last = segment;
      stream.when = now_;
      return isNew ? stream.length : 0;
    }
    *std::ranges::min_element(streams_, {}, &Stream::when) = {segment, 1, now_};
    return 1;
  }

 private:
  struct Stream {
    std::size_t last = 0;
    std::size_t length = 0;
    std::uint64_t when = 0;
  };
  std::array<Stream, 16> streams_;
  std::uint64_t now_ = 0;
};

// A chunk's bytes; not set when they are made.
struct Buffer {
  std::unique_ptr<std::byte[]> memory;
  std::size_t capacity = 0;
  std::size_t size = 0;

  std::span<std::byte> bytes() const { return {memory.get(), size}; }
};

// The memory of chunks that are gone, for those that come: fresh memory costs as much as what is done in it.
// Any number of threads may call.
class Buffers {
 public:
  // mostBytes: of those that wait.
  explicit Buffers(std::uint64_t mostBytes) : mostBytes_(mostBytes) {}

  Buffer take(std::size_t size) {
    {
      const base::MutexLock lock(mutex_);
      if (!free_.empty() && free_.back().capacity >= size) {
        Buffer buffer = std::move(free_.back());
        free_.pop_back();
        freeBytes_ -= buffer.capacity;
        buffer.size = size;
        return buffer;
      }
    }
    return {std::make_unique_for_overwrite<std::byte[]>(size), size, size};
  }

  void give(Buffer buffer) {
    const base::MutexLock lock(mutex_);
    if (buffer.capacity == 0 || freeBytes_ + buffer.capacity > mostBytes_) return;
    freeBytes_ += buffer.capacity;
    free_.push_back(std::move(buffer));
  }

 private:
  const std::uint64_t mostBytes_;
  base::Mutex mutex_;
  std::vector<Buffer> free_ GUARDED_BY(mutex_);
  std::uint64_t freeBytes_ GUARDED_BY(mutex_) = 0;
};

// The plain bytes of a run, or what they are to be. All but `plain` and `error` of a chunk that is being made
// is guarded by the view's mutex; what is ready or failed does not change any more.
struct Chunk {
  enum class State { waiting, making, ready, failed };

  Chunk(std::size_t which, Buffers& memory) : segment(which), buffers(memory) {}
  ~Chunk() { buffers.give(std::move(plain)); }
  Chunk(const Chunk&) = delete;
  Chunk& operator=(const Chunk&) = delete;

  const std::size_t segment;
  Buffers& buffers;
  State state = State::waiting;
  Buffer plain{};
  base::Error error{};
};
using ChunkPointer = std::shared_ptr<Chunk>;

// One thread's memory for making chunks.
struct Workbench {
  ChunkDecoder decoder;
  std::vector<std::byte> stored;
};

}  // namespace

class DiskView::State {
 public:
  State(const Image& image, const Options& options)
      : image_(image),
        segments_(segmentsOf(image)),
        cacheBytes_(options.cacheBytes),
        buffers_(options.cacheBytes / 4),
        workers_(options.workers != 0 ? options.workers : std::max(1u, std::thread::hardware_concurrency())) {
  }
  ~State();

  std::uint64_t size() const { return image_.diskSectors() * kSector; }
  base::Result<void> read(std::uint64_t offset, std::span<std::byte> into);

 private:
  struct Cached {
    ChunkPointer chunk;
    std::list<std::size_t>::iterator place;
  };

  base::Result<void> readSegment(std::size_t at, std::uint64_t offset, std::span<std::byte> into);
  // The chunk, made by this thread or by another one.
  base::Result<ChunkPointer> demand(std::size_t segment);
  // Of a chunk that this thread has set to `making`.
  void make(Chunk& chunk);
  base::Result<Buffer> decode(const Segment& segment, Workbench& bench);
  // Has what follows a segment made, as far as readEnd and as somebody who reads on and on will want it.
  void lookAhead(std::size_t segment, std::uint64_t readEnd);
  std::size_t wantedAfter(std::size_t segment, std::uint64_t readEnd) REQUIRES(mutex_);
  void makeAhead(std::size_t segment) REQUIRES(mutex_);
  void work();
  ChunkPointer takeWork();

  // The segment's chunk as the one that was used last; a new one where there is none.
  ChunkPointer touch(std::size_t segment) REQUIRES(mutex_);
  void forget(std::size_t segment) REQUIRES(mutex_);
  // Leaves the chunk that was used last, however large it is.
  void trim() REQUIRES(mutex_);

  const Image& image_;
  const std::vector<Segment> segments_;
  const std::uint64_t cacheBytes_;
  Buffers buffers_;
  const unsigned workers_;

  base::Mutex mutex_;
  std::condition_variable_any made_;
  std::condition_variable_any wanted_;
  std::unordered_map<std::size_t, Cached> chunks_ GUARDED_BY(mutex_);
  // Segments of chunks_, the one used last first.
  std::list<std::size_t> recent_ GUARDED_BY(mutex_);
  std::uint64_t cachedBytes_ GUARDED_BY(mutex_) = 0;
  Streams streams_ GUARDED_BY(mutex_);
  std::deque<std::size_t> queue_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::vector<std::unique_ptr<Workbench>> benches_ GUARDED_BY(mutex_);
  std::vector<std::jthread> threads_ GUARDED_BY(mutex_);
};

DiskView::State::~State() {
  std::vector<std::jthread> threads;
  {
    base::MutexLock lock(mutex_);
    stopped_ = true;
    threads.swap(threads_);
  }
  wanted_.notify_all();
}

base::Result<void> DiskView::State::read(std::uint64_t offset, std::span<std::byte> into) {
  if (!block::liesWithin(offset, into.size(), size())) return block::outsideDisk(offset, size());
  const std::uint64_t end = offset + into.size();
  auto segment = static_cast<std::size_t>(std::ranges::upper_bound(segments_, offset, {}, &Segment::end) -
                                          segments_.begin());
  while (offset < end) {
    const bool isLast = segment == segments_.size();
    const bool inGap = isLast || offset < segments_[segment].offset();
    const std::uint64_t next = isLast ? end : inGap ? segments_[segment].offset() : segments_[segment].end();
    const auto part = into.first(static_cast<std::size_t>(std::min(next, end) - offset));
    if (inGap) {
      block::fillZeros(part);
    } else {
      lookAhead(segment, end);
      if (auto done = readSegment(segment, offset, part); !done) return done;
      ++segment;
    }
    offset += part.size();
    into = into.subspan(part.size());
  }
  return {};
}

base::Result<void> DiskView::State::readSegment(std::size_t at, std::uint64_t offset,
                                                std::span<std::byte> into) {
  const Segment& segment = segments_[at];
  const std::uint64_t inRun = offset - segment.offset() + segment.skipped * kSector;
  if (segment.isRaw()) return image_.readRaw(*segment.table, *segment.run, inRun, into);
  const auto chunk = demand(at);
  if (!chunk) return chunk.error();
  std::ranges::copy((*chunk)->plain.bytes().subspan(inRun, into.size()), into.begin());
  return {};
}

base::Result<ChunkPointer> DiskView::State::demand(std::size_t segment) {
  ChunkPointer chunk;
  bool isOurs = false;
  {
    base::MutexLock lock(mutex_);
    chunk = touch(segment);
    while (chunk->state == Chunk::State::making) made_.wait(mutex_);
    isOurs = chunk->state == Chunk::State::waiting;
    if (isOurs) chunk->state = Chunk::State::making;
  }
  if (isOurs) make(*chunk);
  if (chunk->state == Chunk::State::failed) return chunk->error;
  return chunk;
}

void DiskView::State::make(Chunk& chunk) {
  auto bench = std::make_unique<Workbench>();
  {
    base::MutexLock lock(mutex_);
    if (!benches_.empty()) {
      bench = std::move(benches_.back());
      benches_.pop_back();
    }
  }
  auto made = decode(segments_[chunk.segment], *bench);
  {
    base::MutexLock lock(mutex_);
    benches_.push_back(std::move(bench));
    if (made) {
      chunk.plain = *std::move(made);
      chunk.state = Chunk::State::ready;
    } else {
      chunk.error = made.error();
      chunk.state = Chunk::State::failed;
      // Whoever asks again has it tried again: the medium may have failed for a moment only.
      forget(chunk.segment);
    }
    trim();
  }
  made_.notify_all();
}

base::Result<Buffer> DiskView::State::decode(const Segment& segment, Workbench& bench) {
  if (auto checked = checkCompressed(*segment.run, segment.table->name); !checked) return checked.error();
  bench.stored.resize(segment.run->length);
  if (auto read = image_.readStored(*segment.table, *segment.run, bench.stored); !read) return read.error();
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): a buffer gives its memory back
  Buffer plain = buffers_.take(segment.runBytes());
  if (auto done = bench.decoder.decode(*segment.run, segment.table->name, bench.stored, plain.bytes()); !done)
    return done.error();
  return plain;
}

void DiskView::State::lookAhead(std::size_t segment, std::uint64_t readEnd) {
  base::MutexLock lock(mutex_);
  std::uint64_t bytes = 0;
  for (std::size_t wanted = wantedAfter(segment, readEnd); wanted > 0; --wanted) {
    const Segment& next = segments_[++segment];
    if (next.isRaw()) continue;
    bytes += next.runBytes();
    if (bytes > cacheBytes_ / 2) return;
    if (!chunks_.contains(segment)) makeAhead(segment);
  }
}

std::size_t DiskView::State::wantedAfter(std::size_t segment, std::uint64_t readEnd) {
  const std::size_t reached = streams_.reached(segment);
  if (reached == 0) return 0;
  const std::size_t most = std::min<std::size_t>(std::size_t{workers_} * 4, segments_.size() - segment - 1);
  std::size_t wanted = reached < 3 ? 0 : reached < 12 ? std::size_t{1} << (reached - 2) : most;
  while (wanted < most && segments_[segment + 1 + wanted].offset() < readEnd) ++wanted;
  return std::min(wanted, most);
}

void DiskView::State::makeAhead(std::size_t segment) {
  touch(segment);
  queue_.push_back(segment);
  while (threads_.size() < workers_) threads_.emplace_back([this] { work(); });
  wanted_.notify_one();
}

void DiskView::State::work() {
  while (const auto chunk = takeWork()) make(*chunk);
}

ChunkPointer DiskView::State::takeWork() {
  base::MutexLock lock(mutex_);
  while (true) {
    while (!stopped_ && queue_.empty()) wanted_.wait(mutex_);
    if (stopped_) return nullptr;
    const auto found = chunks_.find(queue_.front());
    queue_.pop_front();
    if (found == chunks_.end() || found->second.chunk->state != Chunk::State::waiting) continue;
    found->second.chunk->state = Chunk::State::making;
    return found->second.chunk;
  }
}

ChunkPointer DiskView::State::touch(std::size_t segment) {
  if (const auto found = chunks_.find(segment); found != chunks_.end()) {
    recent_.splice(recent_.begin(), recent_, found->second.place);
    return found->second.chunk;
  }
  auto chunk = std::make_shared<Chunk>(segment, buffers_);
  recent_.push_front(segment);
  chunks_.emplace(segment, Cached{chunk, recent_.begin()});
  cachedBytes_ += segments_[segment].runBytes();
  trim();
  return chunk;
}

void DiskView::State::forget(std::size_t segment) {
  const auto found = chunks_.find(segment);
  cachedBytes_ -= segments_[segment].runBytes();
  recent_.erase(found->second.place);
  chunks_.erase(found);
}

void DiskView::State::trim() {
  for (auto at = recent_.end(); cachedBytes_ > cacheBytes_ && --at != recent_.begin();) {
    const std::size_t segment = *at;
    if (chunks_.at(segment).chunk->state == Chunk::State::making) continue;
    ++at;
    forget(segment);
  }
}

DiskView::DiskView(const Image& image, const Options& options)
    : state_(std::make_unique<State>(image, options)) {}
DiskView::~DiskView() = default;

std::uint64_t DiskView::size() const { return state_->size(); }

base::Result<void> DiskView::readChecked(std::uint64_t offset, std::span<std::byte> into) const {
  return state_->read(offset, into);
}

}  // namespace image::udif
