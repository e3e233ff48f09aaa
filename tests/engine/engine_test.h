#pragma once

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/domain_error.h"
#include "base/mutex.h"
#include "engine/stashwick.h"
#include "platform/fake/world.h"
#include "tests/engine/gate.h"
#include "tests/engine/image_tool.h"

namespace tests::engine {

struct Told {
  std::string what;
  ZQStashwickOperationType type = nullptr;
  std::optional<base::DomainError> error = {};
  bool onMainThread = false;
  bool hadOperations = false;  // when it was told
};

// Remembers what the engine tells.
class Listener : public ZQStashwickDelegate {
 public:
  explicit Listener(platform::fake::World& world) : world_(world) {}

  void StashwickDidBegin(ZQStashwick& engine, ZQStashwickOperationType type) override {
    note(engine, {.what = "begin", .type = type});
  }
  void StashwickDidFail(ZQStashwick& engine, const base::DomainError& withError,
                        ZQStashwickOperationType type) override {
    note(engine, {.what = "fail", .type = type, .error = withError});
    if (whenItFails) whenItFails();
  }
  void StashwickDidFinish(ZQStashwick& engine, ZQStashwickOperationType type) override {
    note(engine, {.what = "finish", .type = type});
    if (whenItFinishes) whenItFinishes();
  }

  std::vector<Told> calls() const {
    const base::MutexLock lock(mutex_);
    return calls_;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& call : calls()) names.push_back(call.what);
    return names;
  }
  void forget() {
    const base::MutexLock lock(mutex_);
    calls_.clear();
  }

  // Set before the engine starts. Run on the thread of the call.
  std::function<void()> whenItFails;
  std::function<void()> whenItFinishes;

 private:
  void note(const ZQStashwick& engine, Told call) {
    call.onMainThread = world_.mainQueue.isMainThread();
    call.hadOperations = engine.hasOperations();
    {
      const base::MutexLock lock(mutex_);
      calls_.push_back(std::move(call));
    }
    world_.wake();
  }

  platform::fake::World& world_;
  mutable base::Mutex mutex_;
  std::vector<Told> calls_ GUARDED_BY(mutex_);
};

// An engine with a listener, a volume STICK that holds two files, and an image tool that makes images.
class EngineTest : public ::testing::Test {
 protected:
  using Strings = std::vector<std::string>;
  using Capture = ports::ToolRun::Capture;

  static constexpr const char* kStickFolder = "/Users/tester/Library/Application Support/Stashwick 3/STICK";
  static constexpr const char* kBackup = "Nov 15, 2026, 14:05:09";

  EngineTest() {
    world.files.write("/Volumes/STICK/a", "aa");
    world.files.write("/Volumes/STICK/b", "b");
    world.tools.whenToolRuns(kImageTool, [this](const auto& run) { return makeImage(world, run); });
    engine->setDelegate(listener);
  }

  std::shared_ptr<ZQStashwickQueryResult> scanOf(const std::string& volume) {
    return ZQStashwickQueryResult::initWithPath(world.files, {"/Volumes/" + volume, true}, true);
  }
  void startBackup(const std::string& volume = "STICK") { engine->setBackupQuery(scanOf(volume)); }
  // Returns when nothing is queued any more and everything was told.
  void settle() {
    engine->operationQueue()->waitUntilAllOperationsAreFinished();
    world.runMainQueue();
  }
  void backUp(const std::string& volume = "STICK") {
    startBackup(volume);
    settle();
  }
  void waitAt(const Gate& gate) {
    world.runUntil([&] { return gate.held(); });
  }
  // A backup whose image step fails, as the last step of its run.
  void failSilently(const std::string& text) {
    world.tools.answerTool(kImageTool, text);
    backUp();
  }

  static std::shared_ptr<const ZQStashwickInstance> instance(const std::string& volume = "STICK") {
    return ZQStashwickInstance::_initWithName(volume, "/store/" + volume + "/x.dmg", {}, 8, false, nullptr);
  }
  static ZQStashwick::Password password(std::string_view text) {
    return std::make_shared<const base::Secret>(text);
  }
  void restore(ZQStashwick::Password overridePassword = nullptr) {
    engine->restoreWithBackupInstance(instance(), std::move(overridePassword));
    settle();
  }
  // The tools that ran, each with its verb: "hdiutil mount", "rm", "rsync".
  Strings steps() const {
    Strings steps;
    for (const auto& run : world.tools.runs()) {
      auto name = run.launchPath.substr(run.launchPath.rfind('/') + 1);
      steps.push_back(name == "hdiutil" ? name + " " + run.arguments.at(0) : name);
    }
    return steps;
  }
  std::string path(const std::string& extension) const {
    return std::string(kStickFolder) + "/" + kBackup + extension;
  }

  platform::fake::World world;
  std::shared_ptr<Listener> listener = std::make_shared<Listener>(world);
  std::unique_ptr<ZQStashwick> engine = std::make_unique<ZQStashwick>(world.host());
};

}  // namespace tests::engine
