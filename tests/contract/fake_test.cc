#include <map>
#include <memory>
#include <string>

#include "platform/fake/world.h"
#include "tests/contract/archives_contract.h"
#include "tests/contract/bundle_contract.h"
#include "tests/contract/dates_contract.h"
#include "tests/contract/desktop_contract.h"
#include "tests/contract/disk_arbitration_contract.h"
#include "tests/contract/files_contract.h"
#include "tests/contract/keychain_contract.h"
#include "tests/contract/main_queue_contract.h"
#include "tests/contract/tool_runs_contract.h"
#include "tests/contract/user_defaults_contract.h"
#include "tests/contract/user_session_contract.h"

namespace contract {
namespace {

using platform::fake::RecordedRun;
using platform::fake::World;

class InFakeWorld {
 public:
  ports::MainQueue& mainQueue() { return world.mainQueue; }
  // A second is more than any delay in these suites.
  bool runUntil(const std::function<bool()>& condition) {
    world.letSecondsPass(1);
    return world.runUntil(condition);
  }

 protected:
  World world;
};

struct FakeMainQueue : InFakeWorld {
  ports::MainQueue& queue() { return world.mainQueue; }
  void end() { world.closeMainQueue(); }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, MainQueueContract, FakeMainQueue);

struct FakeFiles : InFakeWorld {
  FakeFiles() { world.files.addVolume("STICK"); }
  ports::Files& files() { return world.files; }
  std::string folder() const { return "/Volumes/STICK"; }
  std::filesystem::path real(const std::string& path) { return world.files.realPath(path); }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, FilesContract, FakeFiles);

struct FakeArchives : FakeFiles {
  ports::Archives& archives() { return world.archives; }
  std::vector<std::string> logged() { return world.log.lines(); }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, ArchivesContract, FakeArchives);

std::string shell(const RecordedRun& run) {
  const auto& script = run.arguments.at(1);
  if (script == kPrintsToBothOutputs) {
    return run.capture == ports::ToolRun::Capture::bothOutputs ? "out\nerr\n" : "err\n";
  }
  if (script == kFailsAfterPrinting) return "text\n";
  if (script == kPrintsAMillionBytes) return std::string(1000000, 'x');
  if (script == kReadsOneLine)
    return "line: " + run.standardInput->substr(0, run.standardInput->find('\n')) + "\n";
  ADD_FAILURE() << "the fake has no shell for " << script;
  return {};
}

std::string echo(const RecordedRun& run) {
  std::string line;
  for (const auto& argument : run.arguments) line += argument + " ";
  line.back() = '\n';
  return line;
}

struct FakeToolRuns : InFakeWorld {
  FakeToolRuns() {
    world.tools.whenToolRuns("/bin/sh", shell);
    world.tools.whenToolRuns("/bin/cat",
                             [](const RecordedRun& run) { return run.standardInput.value_or(""); });
    world.tools.whenToolRuns("/bin/echo", echo);
    world.tools.removeTool("/bin/no-such-tool");
  }
  ports::ToolRuns& tools() { return world.tools; }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, ToolRunsContract, FakeToolRuns);

class FakeUserDefaults {
 public:
  ports::UserDefaults& defaults() { return *defaults_; }
  void set(base::PropertyList value, std::string_view key) { defaults_->set(std::move(value), key); }
  void restart() {
    const auto stored = defaults_->userValues();
    defaults_ = std::make_unique<platform::fake::UserDefaults>();
    for (const auto& [key, value] : stored) defaults_->set(value, key);
  }

 private:
  std::unique_ptr<platform::fake::UserDefaults> defaults_ = std::make_unique<platform::fake::UserDefaults>();
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, UserDefaultsContract, FakeUserDefaults);

struct FakeBundle : InFakeWorld {
  void add(const char* name, const char* type, const char* contents) {
    world.bundle.addResource(name, type, contents);
  }
  void translate(const char* key, const char* text) { world.bundle.setLocalizedString(key, text); }
  ports::Bundle& bundle() { return world.bundle; }
  std::string contentsOf(const std::string& path) { return world.files.read(path).value_or("(none)"); }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, BundleContract, FakeBundle);

struct FakeDates : InFakeWorld {
  ports::Dates& dates() { return world.dates; }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, DatesContract, FakeDates);

struct FakeKeychain : InFakeWorld {
  ports::KeychainItems& keychain() { return world.keychain; }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, KeychainContract, FakeKeychain);

struct FakeUserSession : InFakeWorld {
  ports::UserSession& user() { return world.user; }
  void launch(const char* name) { world.user.setRunningBundleNames({std::nullopt, name}); }
  void quit(const char*) { world.user.setRunningBundleNames({std::nullopt}); }
  void hideProcesses() { world.user.setRunningBundleNames({}); }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, UserSessionContract, FakeUserSession);

struct FakeDisks : InFakeWorld {
  ports::DiskArbitration& disks() { return world.disks; }
  void plug(const std::string& name) { plugged_[name] = world.disks.plugUSB(name); }
  void pull(const std::string& name) { world.disks.pull(plugged_.at(name)); }

 private:
  std::map<std::string, ports::DiskRef> plugged_;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, DiskArbitrationContract, FakeDisks);

struct FakeDesktop : InFakeWorld {
  using Act = std::function<void()>;

  ports::Desktop& desktop() { return world.desktop; }
  void answerNextAlert(int button, bool suppressed, Act whileOpen) {
    world.desktop.whileAlertIsOpen(whileOpenAndLater(std::move(whileOpen)));
    world.desktop.answerAlertsWith([=](const ports::Alert&) {
      return ports::AlertAnswer{ports::kAlertFirstButtonReturn + button, suppressed};
    });
  }
  void pressTheNextPanelsButton(Act whileOpen) { world.desktop.whileAlertIsOpen(std::move(whileOpen)); }
  void closeDesktopAtNextAlert() {
    world.desktop.whileAlertIsOpen([this] { world.desktop.close(); });
  }
  std::string panelText() { return world.desktop.panels().back().text; }
  std::vector<std::string> menuTitles() {
    auto lines = world.desktop.menuLines();
    for (auto& line : lines) line.erase(0, line.find_first_not_of(' '));
    return lines;
  }
  bool isEnabled(const std::string& title) { return world.desktop.isEnabled(*world.desktop.item(title)); }
  void choose(const std::string& title) { world.desktop.click(title); }
  bool terminateRequested() { return world.desktop.terminateRequested(); }

 private:
  // The queue gets every chance to run what it may not run.
  Act whileOpenAndLater(Act whileOpen) {
    return [this, whileOpen = std::move(whileOpen)] {
      if (whileOpen) whileOpen();
      world.letSecondsPass(1);
    };
  }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, DesktopContract, FakeDesktop);

}  // namespace
}  // namespace contract
