#include "platform/fake/tool_runs.h"

#include <algorithm>
#include <utility>

namespace platform::fake {

bool RecordedRun::hasArgument(std::string_view argument) const {
  return std::ranges::find(arguments, argument) != arguments.end();
}

class ToolRuns::Pipe : public ports::InputPipe {
 public:
  Pipe(ToolRuns& tools, std::size_t index) : tools_(tools), index_(index) {}

  void write(base::Secret bytes) override {
    const base::MutexLock lock(tools_.mutex_);
    auto& pipe = tools_.pipes_[index_];
    if (!pipe.writingEndClosed) pipe.bytes += bytes.reveal();
  }
  void closeWritingEnd() override {
    const base::MutexLock lock(tools_.mutex_);
    tools_.pipes_[index_].writingEndClosed = true;
  }
  // What a tool reads from it: everything the first time, nothing afterwards.
  std::string drain() {
    const base::MutexLock lock(tools_.mutex_);
    auto& pipe = tools_.pipes_[index_];
    return std::exchange(pipe.attached, true) ? std::string() : pipe.bytes;
  }

 private:
  ToolRuns& tools_;
  const std::size_t index_;
};

std::unique_ptr<ports::InputPipe> ToolRuns::makePipe() {
  const base::MutexLock lock(mutex_);
  pipes_.emplace_back();
  return std::make_unique<Pipe>(*this, pipes_.size() - 1);
}

std::string ToolRuns::run(const ports::ToolRun& run) {
  RecordedRun recorded{run.launchPath, run.arguments, std::nullopt, run.capture};
  if (run.standardInput != nullptr) recorded.standardInput = dynamic_cast<Pipe&>(*run.standardInput).drain();
  {
    const base::MutexLock lock(mutex_);
    runs_.push_back(recorded);
  }
  changes_.note();
  std::string printed = scriptFor(run.launchPath)(recorded);
  return run.capture == ports::ToolRun::Capture::none ? std::string() : printed;
}

ToolRuns::Script ToolRuns::scriptFor(const std::string& launchPath) {
  const base::MutexLock lock(mutex_);
  if (removed_.contains(launchPath)) {
    return [](const RecordedRun& run) {
      return run.launchPath + ": launch failed - No such file or directory\n";
    };
  }
  if (auto& answers = answers_[launchPath]; !answers.empty()) {
    auto text = std::move(answers.front());
    answers.pop_front();
    return [text](const RecordedRun&) { return text; };
  }
  const auto script = scripts_.find(launchPath);
  return script == scripts_.end() ? [](const RecordedRun&) { return std::string(); } : script->second;
}

void ToolRuns::answerTool(const std::string& launchPath, std::string text) {
  const base::MutexLock lock(mutex_);
  answers_[launchPath].push_back(std::move(text));
}

void ToolRuns::whenToolRuns(const std::string& launchPath, Script script) {
  const base::MutexLock lock(mutex_);
  scripts_.insert_or_assign(launchPath, std::move(script));
}

void ToolRuns::removeTool(const std::string& launchPath) {
  const base::MutexLock lock(mutex_);
  removed_.insert(launchPath);
}

std::vector<RecordedRun> ToolRuns::runs() const {
  const base::MutexLock lock(mutex_);
  return runs_;
}

std::vector<RecordedRun> ToolRuns::runsOf(const std::string& launchPath) const {
  auto all = runs();
  std::erase_if(all, [&](const RecordedRun& run) { return run.launchPath != launchPath; });
  return all;
}

std::vector<RecordedPipe> ToolRuns::pipes() const {
  const base::MutexLock lock(mutex_);
  return pipes_;
}

}  // namespace platform::fake
