#pragma once

#include <chrono>
#include <condition_variable>
#include <optional>
#include <set>
#include <sys/types.h>

#include "base/mutex.h"
#include "base/result.h"
#include "platform/posix/file_descriptor.h"
#include "platform/posix/path_map.h"
#include "platform/posix/tool_streams.h"
#include "ports/system_log.h"
#include "ports/tool_runs.h"

namespace platform::posix {

// Launch paths, and arguments below /Volumes, go through the path map. A tool starts with default signal
// handling and no descriptors but its three streams. A tool that cannot be launched, ends with a status other
// than 0, or by a signal, leaves one line in the system log, with the last line of what was captured.
class PosixToolRuns : public ports::ToolRuns {
 public:
  // How long a tool's output is read on once the tool has ended: what it left in the background may still
  // hold the pipe open, and may do so for ever. What the tool itself wrote is in the pipe by then.
  static constexpr std::chrono::milliseconds kGraceAfterExit{1000};

  // Both outlive this.
  PosixToolRuns(const PathMap& paths, ports::SystemLog& log) : paths_(paths), log_(log) {}

  std::unique_ptr<ports::InputPipe> makePipe() override;
  std::string run(const ports::ToolRun& run) override;

  // From now on tools run with low priority for processor and disk, as behind somebody's back.
  void setBackground(bool background);

  // From now on what tools put on a standard output that nobody captures is dropped: for a program whose own
  // output is its answer. Before the first run.
  void dropOutput() { dropsOutput_ = true; }

  // From now on tools may tell how far they are: each gets a file as its descriptor 3, and HDIUTIL_PROGRESS
  // in its environment. Before the first run; not where the system has no such files.
  void followProgress();
  // Of the tool that told last, from 0 to 1; nullopt when none has told anything since the last one began.
  std::optional<double> progress() const;

  // For quitting: asks the running tools to end, kills those that still run after the time given, and
  // launches none from then on.
  void terminateAll(std::chrono::milliseconds patience);

 private:
  base::Result<pid_t> launch(const ports::ToolRun& run, const ToolStreams& streams) EXCLUDES(mutex_);
  int reap(pid_t tool) EXCLUDES(mutex_);
  void logEnd(const std::string& tool, int status, const std::string& output,
              const std::vector<base::Secret>& input);
  void signalAll(int signal) REQUIRES(mutex_);

  const PathMap& paths_;
  ports::SystemLog& log_;
  bool dropsOutput_ = false;
  FileDescriptor progress_;
  base::Mutex mutex_;
  std::condition_variable_any ended_;
  std::set<pid_t> running_ GUARDED_BY(mutex_);  // not yet reaped, so that the number is still theirs
  bool terminated_ GUARDED_BY(mutex_) = false;
  bool background_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform::posix
