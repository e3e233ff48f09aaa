#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <thread>

#include "image/create.h"

namespace tools {

// How far the writing of an image has come, at one moment.
struct ProgressMoment {
  std::uint64_t sectorsDone = 0;
  std::uint64_t sectorsTotal = 0;
  std::chrono::duration<double> elapsed{};
};

// "PERCENT:41.250000", for programs.
std::string percentLine(const ProgressMoment& moment);
// " 41%  [########            ]  1.2 GB  310 MB/s  0:07 left", for people.
std::string barText(const ProgressMoment& moment);

// Shows the progress a few times a second from a thread of its own, until it goes away.
class ProgressDisplay {
 public:
  enum class Style { percentLines, bar, silent };
  // From 0 to 1. Called on the display's thread.
  using Listener = std::function<void(double fraction)>;

  // Both outlive the display; nobody else writes to `out` meanwhile. The listener may be empty.
  ProgressDisplay(const image::udif::Progress& progress, Style style, std::ostream& out,
                  Listener listener = {});
  // Shows the end, where it was reached.
  ~ProgressDisplay();

 private:
  using Clock = std::chrono::steady_clock;

  void show();

  const image::udif::Progress& progress_;
  Style style_;
  std::ostream& out_;
  const Listener listener_;
  Clock::time_point begin_ = Clock::now();
  std::mutex mutex_;
  std::condition_variable_any ended_;
  // Last, so that it stops first.
  std::jthread thread_;
};

}  // namespace tools
