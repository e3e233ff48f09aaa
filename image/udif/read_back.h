#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/random_access.h"
#include "base/result.h"
#include "image/udif/run_sums.h"

namespace image::udif {

// Reads the chunks of a new image back from disk, in threads of its own, while later ones are still being
// made, and compares their sums with those of what was to be written.
class ReadBack {
 public:
  struct Options {
    unsigned threads = 1;
    // Receives the sums of what was read; nobody else touches it until finish() returns.
    RunSums& sums;
    // Called at most once for each thread, from that thread, with what is wrong.
    std::function<void(base::Error)> failed;
  };

  ReadBack(std::unique_ptr<base::RandomAccess> file, Options options);
  // Leaves what was not read yet unread.
  ~ReadBack();

  // The next stored run in the order of the file, where it stands at run.offset.
  void expect(const Run& run, const RunSum& sum, const std::string& region);
  // A piece of the file has been written. In any order.
  void written(std::uint64_t offset, std::uint64_t length);
  // After the last write: reads the rest.
  void finish();

 private:
  struct Expected {
    Run run;
    RunSum sum;
    std::string region;
  };

  void work();
  std::optional<Expected> next();
  void extendPrefix() REQUIRES(mutex_);
  bool isReadable(const Run& run) const REQUIRES(mutex_);

  std::unique_ptr<base::RandomAccess> file_;
  Options options_;
  base::Mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<Expected> expected_ GUARDED_BY(mutex_);
  // Ends of the written pieces that others before them still keep from being part of the prefix, by offset.
  std::map<std::uint64_t, std::uint64_t> apart_ GUARDED_BY(mutex_);
  // Everything before this is written.
  std::uint64_t prefix_ GUARDED_BY(mutex_) = 0;
  // Runs that end here or before may be read.
  std::uint64_t released_ GUARDED_BY(mutex_) = 0;
  bool finishing_ GUARDED_BY(mutex_) = false;
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::vector<std::jthread> threads_;
};

}  // namespace image::udif
