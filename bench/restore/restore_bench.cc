// Times how what is in an image comes back, beside what people would use instead, side by side in one run:
//   restore_bench FOLDER [--rounds N] [--only extract|mount|list]... [--tree mixed|small|large]...
// FOLDER needs 4 GB of room and 8 GB for each round; trees and images are made there once and stay. Prints
// the best wall time and the best processors' time (without that of a mount's server) of N rounds (default 3)
// in which the contenders take turns, and their part of the peer's. What they wrote is removed at the very
// end: ext4 spends seconds to go around the inodes that were freed a moment ago.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/image/measured_run.h"
#include "bench/image/trees.h"

namespace {

namespace fs = std::filesystem;

struct Options {
  fs::path folder;
  int rounds = 3;
  std::vector<std::string> only{};
  std::vector<std::string> trees{};

  fs::path outs() const { return folder / "out"; }
  static bool includes(const std::vector<std::string>& chosen, const std::string& name) {
    return chosen.empty() || std::ranges::find(chosen, name) != chosen.end();
  }
};

// A line of shell, with the images' path but for its suffix as $1 and the folder to fill as $2.
struct Contender {
  std::string name;
  std::string line;
};

struct Race {
  std::string name;
  std::vector<std::string> trees;
  // The peer last.
  std::vector<Contender> contenders;
};

const std::string kTool = HDIUTIL_PROGRAM;

Contender mounted(const std::string& name, const std::string& mount, const std::string& unmount) {
  return {name, "mkdir \"$2.mnt\" && " + mount + " && { rsync -a \"$2.mnt/\" \"$2/\"; s=$?; " + unmount +
                    " \"$2.mnt\"; rmdir \"$2.mnt\" 2>/dev/null; exit $s; }"};
}

std::vector<Race> races() {
  const std::vector<std::string> all{"mixed", "small", "large"};
  return {{"extract",
           all,
           {{"hdiutil extract", kTool + " extract -to \"$2\" \"$1.dmg\""},
            {"unsquashfs", "unsquashfs -quiet -no-progress -d \"$2\" \"$1.sqfs\""}}},
          {"mount",
           all,
           {mounted("hdiutil mount, rsync -a", kTool + " mount -mountpoint \"$2.mnt\" \"$1.dmg\"",
                    kTool + " unmount"),
            mounted("hdiutil attach, rsync -a", kTool + " attach -mountpoint \"$2.mnt\" \"$1.dmg\"",
                    kTool + " detach"),
            mounted("squashfuse, rsync -a", "squashfuse \"$1.sqfs\" \"$2.mnt\"", "fusermount3 -u")}},
          {"list",
           {"20000"},
           {{"hdiutil list", kTool + " list \"$1.dmg\""},
            {"hdiutil list -long", kTool + " list -long \"$1.dmg\""},
            {"unsquashfs -l", "unsquashfs -l \"$1.sqfs\""}}}};
}

// In a process of its own, so that its memory is not that of the contenders started later.
bool makeTree(const fs::path& tree, const std::string& name) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (name == "mixed") bench::makeMixedTree(tree, 1);
    if (name == "small") bench::makeSmallTree(tree, 1);
    if (name == "large") bench::makeLargeTree(tree, 1);
    if (name == "20000") bench::makeEmptyTree(tree, 0.02);
    ::_exit(0);
  }
  int status = 0;
  return ::waitpid(child, &status, 0) == child && status == 0;
}

// A tree counts as made once both its images are there.
bool prepare(const fs::path& tree, const std::string& name) {
  const std::string path = tree;
  if (fs::exists(path + ".sqfs")) return true;
  fs::remove_all(tree);
  fs::remove(path + ".dmg");
  if (!makeTree(tree, name)) return false;
  return bench::measure(
             {kTool, "create", "-fs", "HFS+", "-volname", name, "-srcfolder", path, path + ".dmg"}) &&
         bench::measure({"mksquashfs", path, path + ".unfinished", "-no-progress", "-comp", "gzip"}) &&
         std::rename((path + ".unfinished").c_str(), (path + ".sqfs").c_str()) == 0;
}

// In seconds.
struct Times {
  double wall = 1e9;
  double processors = 1e9;
};

double processorsOfChildren() {
  rusage usage{};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Into a folder of its own.
Times runOnce(const Contender& contender, const fs::path& tree, const fs::path& outs) {
  static int number = 0;
  ::sync();
  const double before = processorsOfChildren();
  const auto run = bench::measure({"sh", "-c", contender.line, "sh", tree, outs / std::to_string(++number)});
  if (!run) return {};
  return {run->seconds, processorsOfChildren() - before};
}

void runRace(const Race& race, const fs::path& tree, const Options& options) {
  std::vector<Times> best(race.contenders.size());
  for (int round = 0; round < options.rounds; ++round)
    for (std::size_t i = 0; i < best.size(); ++i) {
      const Times times = runOnce(race.contenders[i], tree, options.outs());
      best[i].wall = std::min(best[i].wall, times.wall);
      best[i].processors = std::min(best[i].processors, times.processors);
    }
  std::printf("\n%s %s, best of %d\n", race.name.c_str(), tree.filename().c_str(), options.rounds);
  for (std::size_t i = 0; i < best.size(); ++i)
    std::printf("%-26s %8.3f s, processors %8.3f s; %6.2f and %6.2f of the peer's\n",
                race.contenders[i].name.c_str(), best[i].wall, best[i].processors,
                best[i].wall / best.back().wall, best[i].processors / best.back().processors);
  std::fflush(stdout);
}

int runAll(const Options& options) {
  for (const Race& race : races()) {
    if (!Options::includes(options.only, race.name)) continue;
    for (const std::string& name : race.trees) {
      if (race.trees.size() > 1 && !Options::includes(options.trees, name)) continue;
      const fs::path tree = options.folder / name;
      if (!prepare(tree, name)) {
        std::cerr << "restore_bench: cannot make the images of " << tree << "\n";
        return EXIT_FAILURE;
      }
      bench::measure({"cat", tree.string() + ".dmg", tree.string() + ".sqfs"});
      runRace(race, tree, options);
    }
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::string_view> words(arguments + 1, arguments + count);
  Options options;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const auto value = [&] { return i + 1 < words.size() ? std::string(words[++i]) : std::string(); };
    if (words[i] == "--rounds")
      options.rounds = std::atoi(value().c_str());
    else if (words[i] == "--only")
      options.only.push_back(value());
    else if (words[i] == "--tree")
      options.trees.push_back(value());
    else
      options.folder = words[i];
  }
  if (options.folder.empty() || options.rounds < 1) {
    std::cerr << "usage: restore_bench FOLDER [--rounds N] [--only extract|mount|list]... "
                 "[--tree mixed|small|large]...\n";
    return 64;
  }
  fs::remove_all(options.outs());
  fs::create_directories(options.outs());
  const int status = runAll(options);
  fs::remove_all(options.outs());
  return status;
}
