#include "tools/progress_display.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>
#include <utility>

#include "base/byte_text.h"

namespace tools {
namespace {

constexpr std::chrono::milliseconds kInterval{200};

double fractionOf(const ProgressMoment& moment) {
  if (moment.sectorsTotal == 0) return 0;
  return static_cast<double>(moment.sectorsDone) / static_cast<double>(moment.sectorsTotal);
}

template <class... Arguments>
std::string formatted(const char* format, Arguments... arguments) {
  std::array<char, 128> text;
  const int length = std::snprintf(text.data(), text.size(), format, arguments...);
  return {text.data(), static_cast<std::size_t>(std::clamp(length, 0, static_cast<int>(text.size()) - 1))};
}

}  // namespace

std::string percentLine(const ProgressMoment& moment) {
  return formatted("PERCENT:%f", 100 * fractionOf(moment));
}

std::string barText(const ProgressMoment& moment) {
  constexpr std::size_t kWidth = 30;
  const double fraction = fractionOf(moment);
  const double bytes = static_cast<double>(moment.sectorsDone) * 512;
  const double seconds = std::max(moment.elapsed.count(), 0.001);
  const auto filled = static_cast<std::size_t>(fraction * kWidth);
  std::string text = formatted("%3d%%  [", static_cast<int>(100 * fraction));
  text += std::string(filled, '#') + std::string(kWidth - filled, ' ') + "]  ";
  text += base::byteText(bytes) + "  " + base::byteText(bytes / seconds) + "/s";
  if (moment.sectorsDone == 0) return text;
  const auto left = static_cast<long>(seconds / fraction - seconds);
  return text + formatted("  %ld:%02ld left", left / 60, left % 60);
}

ProgressDisplay::ProgressDisplay(const image::udif::Progress& progress, Style style, std::ostream& out,
                                 Listener listener)
    : progress_(progress),
      style_(style),
      out_(out),
      listener_(std::move(listener)),
      thread_([this](const std::stop_token& stop) {
        std::unique_lock lock(mutex_);
        while (!ended_.wait_for(lock, stop, kInterval, [&] { return stop.stop_requested(); })) show();
      }) {}

ProgressDisplay::~ProgressDisplay() {
  thread_.request_stop();
  thread_.join();
  show();
  if (style_ == Style::bar && progress_.sectorsTotal > 0) out_ << "\n";
}

void ProgressDisplay::show() {
  const ProgressMoment moment{progress_.sectorsDone, progress_.sectorsTotal, Clock::now() - begin_};
  if (moment.sectorsTotal == 0) return;
  if (listener_) listener_(fractionOf(moment));
  if (style_ == Style::bar)
    out_ << "\r" << barText(moment) << "  " << std::flush;
  else if (style_ == Style::percentLines)
    out_ << percentLine(moment) << "\n" << std::flush;
}

}  // namespace tools
