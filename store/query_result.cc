#include "store/query_result.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <optional>
#include <span>
#include <utility>

#include "base/mutex.h"

namespace {

// Kept on purpose: one total for the life of the process, which every scan adds to.
std::atomic<std::int64_t> runningTotal = 0;

}  // namespace

// What the record shares with the thread of its scan.
struct ZQStashwickQueryResult::Scan {
  struct Observer {
    ObserverToken token;
    std::function<void()> told;
  };

  base::Mutex mutex;
  std::condition_variable_any becameReady;
  std::vector<base::FileURL> found GUARDED_BY(mutex);
  FileList complete GUARDED_BY(mutex);
  std::optional<base::KeyedDecoder> archive GUARDED_BY(mutex);
  std::int64_t bytes GUARDED_BY(mutex) = 0;
  bool ready GUARDED_BY(mutex) = false;
  bool running GUARDED_BY(mutex) = false;
  std::vector<Observer> observers GUARDED_BY(mutex);
  ObserverToken lastToken GUARDED_BY(mutex) = 0;

  void walk(ports::Files& files, const base::FileURL& root, bool ignoresHidden, const std::stop_token& stop);
  void finish();
  void _setReady(bool now);
  FileList list();
};

void ZQStashwickQueryResult::Scan::walk(ports::Files& files, const base::FileURL& root, bool ignoresHidden,
                                        const std::stop_token& stop) {
  files.enumerate(root.path, {.isHidden = true, .totalFileSize = true}, [&](const ports::FileItem& item) {
    runningTotal += static_cast<std::int64_t>(item.totalFileSize);
    if (!(ignoresHidden && item.isHidden)) {
      const base::MutexLock lock(mutex);
      found.push_back({std::string(item.path), item.isDirectory});
    }
    return !stop.stop_requested();
  });
}

void ZQStashwickQueryResult::Scan::finish() {
  {
    const base::MutexLock lock(mutex);
    complete = std::make_shared<const std::vector<base::FileURL>>(std::move(found));
    found.clear();
    bytes = runningTotal;
  }
  _setReady(true);
}

void ZQStashwickQueryResult::Scan::_setReady(bool now) {
  std::vector<Observer> toTell;
  {
    const base::MutexLock lock(mutex);
    ready = now;
    running = !now;
    toTell.swap(observers);
    becameReady.notify_all();
  }
  for (const auto& observer : toTell) observer.told();
}

ZQStashwickQueryResult::FileList ZQStashwickQueryResult::Scan::list() {
  const base::MutexLock lock(mutex);
  if (archive) {
    auto decoded = archive->decodeURLs("files");
    archive.reset();
    if (decoded) complete = std::make_shared<const std::vector<base::FileURL>>(std::move(*decoded));
  }
  return complete || !running ? complete : std::make_shared<const std::vector<base::FileURL>>(found);
}

ZQStashwickQueryResult::ZQStashwickQueryResult(base::FileURL path, bool ignoresHiddenFiles)
    : path_(std::move(path)), ignoresHiddenFiles_(ignoresHiddenFiles), scan_(std::make_shared<Scan>()) {}

std::shared_ptr<ZQStashwickQueryResult> ZQStashwickQueryResult::initWithPath(ports::Files& files,
                                                                             base::FileURL path,
                                                                             bool considerHiddenFiles) {
  // Kept on purpose: not inverted.
  std::shared_ptr<ZQStashwickQueryResult> record(
      new ZQStashwickQueryResult(std::move(path), considerHiddenFiles));
  record->_scanDirectoryAtPath(files);
  return record;
}

std::shared_ptr<ZQStashwickQueryResult> ZQStashwickQueryResult::initWithCoder(
    const base::KeyedDecoder& coder) {
  std::shared_ptr<ZQStashwickQueryResult> record(new ZQStashwickQueryResult(
      coder.decodeURL("path").value_or(base::FileURL{}), coder.decodeBool("ignoresHiddenFiles")));
  const base::MutexLock lock(record->scan_->mutex);
  record->scan_->archive = coder;
  record->scan_->bytes = coder.decodeInteger("bytes");
  record->scan_->ready = coder.decodeBool("ready");
  return record;
}

ZQStashwickQueryResult::~ZQStashwickQueryResult() {
  // An observer may drop the last reference on the thread of the scan, which then has only to return.
  if (thread_.get_id() == std::this_thread::get_id()) thread_.detach();
}

void ZQStashwickQueryResult::_scanDirectoryAtPath(ports::Files& files) {
  scan_->_setReady(false);
  thread_ = std::jthread(
      [scan = scan_, &files, root = path_, ignoresHidden = ignoresHiddenFiles_](const std::stop_token& stop) {
        scan->walk(files, root, ignoresHidden, stop);
        scan->finish();
      });
}

void ZQStashwickQueryResult::encodeWithCoder(base::KeyedEncoder& coder) const {
  const auto list = files();
  coder.encodeURLs("files", list ? std::span<const base::FileURL>(*list) : std::span<const base::FileURL>());
  coder.encodeURL("path", path_);
  coder.encodeInteger("bytes", bytes());
  coder.encodeBool("ready", ready());
  coder.encodeBool("ignoresHiddenFiles", ignoresHiddenFiles_);
}

ZQStashwickQueryResult::FileList ZQStashwickQueryResult::files() const { return scan_->list(); }

std::int64_t ZQStashwickQueryResult::bytes() const {
  const base::MutexLock lock(scan_->mutex);
  return scan_->bytes;
}

bool ZQStashwickQueryResult::ready() const {
  const base::MutexLock lock(scan_->mutex);
  return scan_->ready;
}

std::int64_t ZQStashwickQueryResult::seconds() const {
  const auto list = files();
  return static_cast<std::int64_t>(static_cast<double>(list ? list->size() : 0) * 0.5);
}

std::vector<std::string_view> ZQStashwickQueryResult::properties() const {
  return {"NSURLNameKey", "NSURLIsDirectoryKey", "NSURLIsHiddenKey", "NSURLTotalFileSizeKey"};
}

ZQStashwickQueryResult::ObserverToken ZQStashwickQueryResult::addReadyObserver(
    std::function<void()> observer) {
  const base::MutexLock lock(scan_->mutex);
  scan_->observers.push_back({++scan_->lastToken, std::move(observer)});
  return scan_->lastToken;
}

void ZQStashwickQueryResult::removeReadyObserver(ObserverToken token) {
  std::function<void()> removed;  // let go of without the lock
  const base::MutexLock lock(scan_->mutex);
  const auto found = std::ranges::find(scan_->observers, token, &Scan::Observer::token);
  if (found == scan_->observers.end()) return;
  removed = std::move(found->told);
  scan_->observers.erase(found);
}

void ZQStashwickQueryResult::waitUntilReady() const {
  scan_->mutex.lock();
  while (scan_->running) scan_->becameReady.wait(scan_->mutex);
  scan_->mutex.unlock();
}
