#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/fake/changes.h"
#include "ports/tool_runs.h"

namespace platform::fake {

struct RecordedRun {
  std::string launchPath;
  std::vector<std::string> arguments;
  std::optional<std::string> standardInput;  // all that the tool could read; nullopt: inherited
  ports::ToolRun::Capture capture = ports::ToolRun::Capture::none;

  bool hasArgument(std::string_view argument) const;
};

struct RecordedPipe {
  std::string bytes;
  bool writingEndClosed = false;
  bool attached = false;  // some tool had it as its standard input
};

// Tools that do what a test scripts, by launch path; without a script a tool prints nothing. A run that
// captures nothing returns nothing, whatever the script prints.
class ToolRuns : public ports::ToolRuns {
 public:
  using Script = std::function<std::string(const RecordedRun&)>;

  explicit ToolRuns(Changes& changes) : changes_(changes) {}

  std::unique_ptr<ports::InputPipe> makePipe() override;
  std::string run(const ports::ToolRun& run) override;

  // What the next run of the tool prints. Can be called ahead several times; comes before whenToolRuns().
  void answerTool(const std::string& launchPath, std::string text);
  // What the tool does and prints, in the thread that runs it. A new script replaces the old.
  void whenToolRuns(const std::string& launchPath, Script script);
  // The tool can no longer be launched.
  void removeTool(const std::string& launchPath);

  // In the order of their launches.
  std::vector<RecordedRun> runs() const;
  std::vector<RecordedRun> runsOf(const std::string& launchPath) const;
  // In the order in which they were made.
  std::vector<RecordedPipe> pipes() const;

 private:
  class Pipe;

  Script scriptFor(const std::string& launchPath);

  Changes& changes_;
  mutable base::Mutex mutex_;
  std::map<std::string, std::deque<std::string>> answers_ GUARDED_BY(mutex_);
  std::map<std::string, Script> scripts_ GUARDED_BY(mutex_);
  std::set<std::string> removed_ GUARDED_BY(mutex_);
  std::vector<RecordedRun> runs_ GUARDED_BY(mutex_);
  std::vector<RecordedPipe> pipes_ GUARDED_BY(mutex_);
};

}  // namespace platform::fake
