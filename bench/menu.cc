// What a rebuild of the status menu costs: 20 attached volumes with 50 backups each, 20,000 files in every
// manifest, warm cache. Beside it the least that any menu of this kind must do: walk the same folders and
// look at each image.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "app/agent_app_delegate.h"
#include "platform/fake/world.h"
#include "platform/posix/icu_dates.h"
#include "platform/posix/path_map.h"
#include "platform/posix/posix_archives.h"
#include "platform/posix/posix_files.h"

namespace {

namespace fs = std::filesystem;

constexpr int kVolumes = 20;
constexpr int kBackups = 50;
constexpr int kFiles = 20'000;

// A store on disk, read by the adapters that people have; the rest of the world is a fake.
class Store {
 public:
  Store() : folder_(makeFolder()), files_(paths_, folder_), archives_(paths_, world_.log) {
    const auto manifest = makeManifest();
    for (int volume = 0; volume < kVolumes; ++volume) {
      const std::string name = "STICK" + std::to_string(volume);
      fill(root() / name, manifest);
      world_.disks.plugUSB(name);
    }
    agent_->applicationDidFinishLaunching();
    world_.runMainQueue();
  }
  ~Store() {
    agent_->applicationWillTerminate();
    fs::remove_all(folder_);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  fs::path root() const { return fs::path(folder_) / "Stashwick 3"; }
  const ZQAgentAppDelegate& agent() const { return *agent_; }

 private:
  static std::string makeFolder() {
    std::string name = (fs::temp_directory_path() / "stashwick-bench-XXXXXX").string();
    if (!::mkdtemp(name.data())) std::abort();
    return name;
  }

  fs::path makeManifest() {
    const fs::path stick = fs::path(folder_) / "stick";
    for (int file = 0; file < kFiles; ++file) {
      const fs::path folder = stick / ("Holiday pictures " + std::to_string(file / 200));
      if (file % 200 == 0) fs::create_directories(folder);
      const std::ofstream picture(folder / ("IMG_" + std::to_string(file) + ".jpeg"));
    }
    const auto record = ZQStashwickQueryResult::initWithPath(files_, {stick.string(), true}, true);
    record->waitUntilReady();
    ZQStashwickOperation operation;
    operation.setFormat("HFS+");
    operation.setResult(record);
    const fs::path manifest = fs::path(folder_) / "manifest";
    if (!archives_.archiveRootObject(operation, manifest.string())) std::abort();
    return manifest;
  }

  static void fill(const fs::path& folder, const fs::path& manifest) {
    fs::create_directories(folder);
    for (int backup = 0; backup < kBackups; ++backup) {
      const std::string name = "Nov 15, 2026, 14:05:" + std::to_string(backup);
      const std::ofstream image(folder / (name + ".dmg"));
      fs::copy_file(manifest, folder / (name + ".manifest"));
    }
  }

  std::string folder_;
  platform::fake::World world_;
  platform::posix::PathMap paths_{"/nowhere", "/nowhere"};
  platform::posix::PosixFiles files_;
  platform::posix::PosixArchives archives_;
  platform::posix::IcuDates dates_;
  ports::Host host_{world_.disks, world_.keychain, world_.desktop,      world_.tools,  world_.mainQueue,
                    files_,       archives_,       world_.defaults,     world_.bundle, dates_,
                    world_.user,  world_.log,      world_.notifications};
  std::shared_ptr<ZQAgentAppDelegate> agent_ = ZQAgentAppDelegate::init(host_);
};

Store& store() {
  static Store instance;
  return instance;
}

void statusMenuOf1000Backups(benchmark::State& state) {
  const auto& agent = store().agent();
  if (agent.devices().size() != kVolumes) state.SkipWithError("not every volume is listed");
  for (auto _ : state) benchmark::DoNotOptimize(agent._statusBarMenu());
}
BENCHMARK(statusMenuOf1000Backups)->Unit(benchmark::kMillisecond);

void walkAndLookOf1000Images(benchmark::State& state) {
  for (auto _ : state) {
    std::uintmax_t bytes = 0;
    for (const auto& entry : fs::recursive_directory_iterator(store().root())) {
      if (entry.path().extension() == ".dmg") bytes += entry.file_size();
    }
    benchmark::DoNotOptimize(bytes);
  }
}
BENCHMARK(walkAndLookOf1000Images)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
