#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/agent_app_delegate.h"
#include "platform/fake/world.h"
#include "tests/engine/gate.h"
#include "tests/engine/image_tool.h"

namespace tests::app {

using engine::Gate;
using engine::kImageTool;

// An agent in a world whose image tool makes images. Disks that are attached after the launch come at a time
// that is later than the launch however coarse the reading.
class AgentTest : public ::testing::Test {
 protected:
  using Lines = std::vector<std::string>;

  static constexpr const char* kStore = "/Users/tester/Library/Application Support/Stashwick 3";
  static constexpr const char* kList =
      "/Users/tester/Library/Application Support/Stashwick 3/StashwickHelper.plist";
  static constexpr const char* kPostponed =
      "[Stashwick] Stashwick is currently running. Postponing backup action...";
  static constexpr const char* kFinished = "[Stashwick] All operations have completed successfully.";
  static constexpr double kGrain = 64;  // seconds between two connection dates

  AgentTest() {
    world.tools.whenToolRuns(kImageTool, [this](const auto& run) { return engine::makeImage(world, run); });
  }
  ~AgentTest() override {
    if (agent && agent->stashwick()) finish();
    if (agent) agent->applicationWillTerminate();
  }

  void launch() {
    agent->applicationDidFinishLaunching();
    world.runMainQueue();
  }
  ports::DiskRef attach(ports::DiskDescription description) {
    world.letSecondsPass(kGrain);
    description.insert_or_assign(std::string(ports::kDAAppearanceTimeKey),
                                 world.clock.now().secondsSinceReferenceDate);
    const auto disk = world.disks.plug(std::move(description));
    world.runMainQueue();
    return disk;
  }
  ports::DiskRef attach(const std::string& name) { return attach(world.disks.usbPartition(name)); }
  // Attaches a stick, presses this button of its question, and waits until the engine is idle.
  ports::DiskRef attachAndAnswer(const std::string& name, const std::string& button, bool ticked = false) {
    world.desktop.answerNextAlert(button, ticked);
    const auto disk = attach(name);
    finish();
    return disk;
  }
  void pull(const ports::DiskRef& disk) {
    world.disks.pull(disk);
    world.runMainQueue();
  }
  // Returns when the engine has nothing left to do and everything was told.
  void finish() {
    auto* queue = agent->stashwick()->operationQueue();
    world.runWhile([queue] { queue->waitUntilAllOperationsAreFinished(); });
    world.runMainQueue();
  }
  // Attaches a stick and leaves its backup waiting at the gate. Once through, the image tool makes an image
  // or, when it is given a text, prints that instead. Open the gate and finish() before the test ends.
  ports::DiskRef attachAndBackUpTo(Gate& gate, const std::string& name,
                                   const std::optional<std::string>& printed = {}) {
    world.tools.whenToolRuns(kImageTool, [this, &gate, printed](const auto& run) {
      gate.pass();
      return printed ? *printed : engine::makeImage(world, run);
    });
    world.desktop.answerNextAlert("Backup");
    const auto disk = attach(name);
    world.runUntil([&] { return gate.held(); });
    return disk;
  }
  // A restore whose mount fails with this text: a failure that is told.
  void failRestore(const std::string& volume, const std::string& text) {
    world.tools.answerTool(kImageTool, text);
    agent->stashwick()->restoreWithBackupInstance(
        ZQStashwickInstance::_initWithName(volume, "/store/x.dmg", {}, 8, false, nullptr), nullptr);
    finish();
  }

  static ports::DiskDescription with(ports::DiskDescription description, std::string_view key,
                                     base::PropertyList value) {
    description.insert_or_assign(std::string(key), std::move(value));
    return description;
  }
  static std::string UDID(const ports::DiskDescription& description) {
    return *base::find<std::string>(description, ports::kDADiskDescriptionMediaUUIDKey);
  }
  void writeList(const base::PropertyList::Dictionary& list) {
    world.files.createDirectory(kStore);
    ASSERT_TRUE(world.archives.writeDictionary(list, kList));
  }
  base::PropertyList::Dictionary list() {
    return world.archives.dictionaryWithContentsOfFile(kList).value_or(base::PropertyList::Dictionary{});
  }
  void storeImage(const std::string& volume, const std::string& name, base::Date created) {
    const std::string image = std::string(kStore) + "/" + volume + "/" + name + ".dmg";
    world.files.write(image, "an image");
    world.files.setCreationDate(image, created);
  }
  static base::Date daysBefore(base::Date date, int days) {
    return {date.secondsSinceReferenceDate - days * 86400.0};
  }
  std::string firstLine() const { return world.desktop.menuLines().at(0); }
  std::size_t imagesRun() const { return world.tools.runsOf(kImageTool).size(); }
  Lines deviceNames() const {
    Lines names;
    for (const auto& device : agent->devices()) names.push_back(device->name());
    return names;
  }

  platform::fake::World world;
  std::shared_ptr<ZQAgentAppDelegate> agent = ZQAgentAppDelegate::init(world.host());
};

}  // namespace tests::app
