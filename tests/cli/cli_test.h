#pragma once

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>

#include "base/xml_property_list.h"
#include "cli/command_line.h"
#include "devices/removable_device_center.h"
#include "platform/fake/world.h"
#include "tests/engine/image_tool.h"

namespace tests::cli {

using base::PropertyList;
using ::cli::Exit;

// The volumes of the world's disks.
class WorldVolumes : public ::cli::Volumes {
 public:
  explicit WorldVolumes(platform::fake::World& world) : world_(world) {}

  base::Result<void> lookIn(const std::string& folder) override {
    if (world_.files.fileExists(folder)) return {};
    return base::Error{"\"" + folder + "\": No such file or directory"};
  }
  std::vector<::cli::Device> attached() override {
    if (!center_) center_ = std::make_unique<ZQRemovableDeviceCenter>(world_.host());
    world_.runMainQueue();
    return center_->availableDevices();
  }
  base::Result<::cli::Device> attach(const std::string& folder) override {
    for (const auto& device : attached())
      if (folder.ends_with("/" + device->name())) return device;
    return base::Error{"\"" + folder + "\": No such file or directory"};
  }
  std::string place(const ZQRemovableDevice& volume) override { return "/media/pat/" + volume.name(); }
  bool holds(const ZQRemovableDevice& volume, const std::string& path) override {
    return path.starts_with("/Volumes/" + volume.name());
  }
  void standIn(const std::string& name, const ZQRemovableDevice& volume) override {
    stoodIn.emplace_back(name, volume.name());
  }

  ::cli::Agent* agentOf(const ZQRemovableDevice& /*volume*/) override { return agent; }

  std::vector<std::pair<std::string, std::string>> stoodIn;
  ::cli::Agent* agent = nullptr;

 private:
  platform::fake::World& world_;
  std::unique_ptr<ZQRemovableDeviceCenter> center_;
};

// Somebody who has made up their mind, or nobody.
class ScriptedTerminal : public ::cli::Terminal {
 public:
  bool isAttended() const override { return !answers.empty() || !passwords.empty(); }
  std::optional<std::string> ask(const std::string& question) override {
    asked.push_back(question);
    return next(answers);
  }
  std::optional<base::Secret> askPassword(const std::string& question) override {
    asked.push_back(question);
    const auto typed = next(passwords);
    return typed ? std::optional(base::Secret(*typed)) : std::nullopt;
  }
  base::Result<base::Secret> readPassword() override {
    if (!input) return base::Error{"standard input: there is no password on its first line"};
    return base::Secret(*input);
  }
  base::Result<base::Secret> readPasswordFile(const std::string& path) override {
    return base::Error{"password file \"" + path + "\": No such file or directory"};
  }

  std::deque<std::string> answers;
  std::deque<std::string> passwords;
  std::optional<std::string> input;
  std::vector<std::string> asked;

 private:
  static std::optional<std::string> next(std::deque<std::string>& texts) {
    if (texts.empty()) return std::nullopt;
    auto text = texts.front();
    texts.pop_front();
    return text;
  }
};

class WorldFolders : public ::cli::StoreFolders {
 public:
  explicit WorldFolders(platform::fake::World& world) : world_(world) {}

  base::Result<std::unique_ptr<Hold>> hold(const std::string& folder, std::string& holder) override {
    held.push_back(folder);
    holder = otherHolder;
    return otherHolder.empty() ? std::make_unique<Hold>() : std::unique_ptr<Hold>();
  }
  base::Result<void> removeFile(const std::string& path) override {
    removed.push_back(path);
    world_.files.remove(path);
    return {};
  }

  std::string otherHolder;
  std::vector<std::string> held;
  std::vector<std::string> removed;

 private:
  platform::fake::World& world_;
};

class FlagsByName : public ::cli::AutomaticBackups {
 public:
  std::int32_t flag(const ZQRemovableDevice& volume) override { return flags[volume.name()]; }
  void setFlag(const ZQRemovableDevice& volume, std::int32_t flag) override { flags[volume.name()] = flag; }
  std::map<std::string, std::int32_t> flags;
};

// The command line in a world with one stick, STICK, that holds two files, and a disk image tool that works.
class CliTest : public ::testing::Test {
 protected:
  using Strings = std::vector<std::string>;
  using Run = platform::fake::RecordedRun;

  static constexpr const char* kTool = "/usr/bin/hdiutil";

  CliTest() {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    world.disks.plugUSB("STICK");
    world.files.write("/Volumes/STICK/a", "aa");
    world.files.write("/Volumes/STICK/b", "b");
    world.tools.whenToolRuns(kTool, [this](const Run& run) { return imageTool(run); });
    world.tools.whenToolRuns("/bin/rm", [this](const Run& run) {
      world.files.remove(run.arguments.at(1) + "/a");
      world.files.remove(run.arguments.at(1) + "/b");
      return std::string();
    });
  }

  // What the tool prints, by its verb; an answer that was scripted for the verb first.
  std::string imageTool(const Run& run) {
    const std::string verb = run.arguments.at(0);
    if (const auto scripted = answers.find(verb); scripted != answers.end()) return scripted->second;
    if (password && run.standardInput != *password + std::string("\0\n", 2) && verb != "create")
      return "hdiutil: " + verb + " failed - Authentication error\n";
    if (verb == "verify") return "hdiutil: verify: checksum of \"" + run.arguments.back() + "\" is VALID\n";
    if (verb == "list")
      return listOf({PropertyList::Dictionary{{"path", "a"}, {"kind", "file"}, {"size", 2}, {"mode", 0644}}});
    if (verb == "compare") return base::writeXMLPropertyList(differences);
    return engine::makeImage(world, run);
  }
  static std::string listOf(const PropertyList::Array& items) { return base::writeXMLPropertyList(items); }

  Exit ctl(const Strings& arguments) {
    out.str("");
    error.str("");
    return ::cli::run(arguments, {.host = world.host(),
                                  .volumes = volumes,
                                  .terminal = terminal,
                                  .folders = folders,
                                  .automatic = automatic,
                                  .walkedFiles = world.files,
                                  .lastTools = world.tools,
                                  .serveUntil = [this](const auto& done) { return world.runUntil(done); },
                                  .toolProgress = [this] { return progress; },
                                  .streams = {.out = out, .error = error}});
  }

  // A backup that somebody made before, with its manifest.
  std::string store(const std::string& volume, const std::string& name, double daysAgo) {
    const std::string folder = world.applicationSupport() + "/Stashwick 3/" + volume;
    const std::string image = folder + "/" + name + ".dmg";
    world.files.write(image, "an image");
    world.files.setCreationDate(image, base::Date::fromUnix(world.clock.now().unix() - daysAgo * 86400));
    ZQStashwickOperation operation;
    operation.setFormat("HFS+");
    operation.setEncryption(storesEncrypted ? std::optional<std::string>("AES-256") : std::nullopt);
    auto record = ZQStashwickQueryResult::initWithPath(world.files, {"/Volumes/" + volume, true}, true);
    record->waitUntilReady();
    operation.setResult(record);
    world.archives.archiveRootObject(operation, folder + "/" + name + ".manifest");
    return image;
  }

  // The verbs and tools that ran: "create", "verify", "rm".
  Strings steps() const {
    Strings steps;
    for (const auto& run : world.tools.runs())
      steps.push_back(run.launchPath == kTool ? run.arguments.at(0)
                                              : run.launchPath.substr(run.launchPath.rfind('/') + 1));
    return steps;
  }

  std::optional<double> progress;
  platform::fake::World world;
  WorldVolumes volumes{world};
  ScriptedTerminal terminal;
  WorldFolders folders{world};
  FlagsByName automatic;
  bool storesEncrypted = false;
  std::map<std::string, std::string> answers;
  std::optional<std::string> password;  // that the tool wants for every image
  PropertyList::Array differences;
  std::ostringstream out;
  std::ostringstream error;
};

}  // namespace tests::cli
