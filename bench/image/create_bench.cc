// Times the creation of disk images beside what people would use instead, side by side in one run:
//   image_create_bench FOLDER [--quick] [--rounds N] [--threads N]... [--only TREE]... [--million]
// FOLDER needs 5 GB of room; the trees are made there once and stay. --million adds a tree of 1,000,000 empty
// files. Prints for each tree the best wall time of N rounds (default 3) in which the contenders take turns.
//   image_create_bench create SOURCE IMAGE [verified] [encrypted]
// makes one image with what the tool does not let users leave out.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/image/measured_run.h"
#include "bench/image/trees.h"
#include "image/create.h"

namespace {

namespace fs = std::filesystem;

int createOne(const std::vector<std::string_view>& arguments) {
  image::CreateRequest request{
      .source = std::string(arguments.at(0)), .volumeName = "V", .image = std::string(arguments.at(1))};
  request.verifies = std::ranges::find(arguments, "verified") != arguments.end();
  if (std::ranges::find(arguments, "encrypted") != arguments.end())
    request.encryption.emplace(image::Encryption{image::crypt::Method::aes256, base::Secret("password")});
  const auto report = image::createImage(request);
  if (!report) std::cerr << report.error().message << "\n";
  return report ? EXIT_SUCCESS : EXIT_FAILURE;
}

struct Options {
  fs::path folder;
  double share = 1;
  int rounds = 3;
  std::vector<int> threads{};
  std::vector<std::string> only{};
  bool million = false;
};

// Who takes part, with the command that makes `out` of `tree` on so many processors.
struct Contender {
  std::string name;
  std::function<bench::Command(const std::string& tree, const std::string& out, int threads)> command;
  // Only its size matters: it runs in the first round and not again.
  bool isSlow = false;
};

Contender shell(const std::string& name, const std::string& line) {
  return {name, [line](const auto& tree, const auto& out, int threads) {
            return bench::Command{"sh", "-c", line, "sh", tree, out, std::to_string(threads)};
          }};
}

Contender ours(const std::string& name, const bench::Command& words) {
  return {name, [words](const auto& tree, const auto& out, int) {
            bench::Command command{"/proc/" + std::to_string(::getpid()) + "/exe", "create", tree, out};
            command.insert(command.end(), words.begin(), words.end());
            return command;
          }};
}

Contender slow(Contender contender) {
  contender.isSlow = true;
  return contender;
}

constexpr const char* kSquash = "mksquashfs \"$1\" \"$2\" -no-progress -processors \"$3\" -comp gzip";

std::vector<Contender> imageContenders() {
  const std::string create = HDIUTIL_PROGRAM " create -fs HFS+ -volname V -srcfolder \"$1\"";
  return {
      shell("cp -a; sync", "cp -a \"$1\" \"$2\" && sync -f \"$2\""),
      shell("mksquashfs gzip 1", std::string(kSquash) + " -Xcompression-level 1"),
      slow(shell("mksquashfs gzip", kSquash)),
      shell("hdiutil create", create + " \"$2.dmg\" && mv \"$2.dmg\" \"$2\""),
      shell("hdiutil create AES-256",
            create + " -encryption AES-256 -stdinpass \"$2.dmg\" <<E && mv \"$2.dmg\" \"$2\"\npassword\nE"),
      ours("unverified", {}),
      ours("unverified AES-256", {"encrypted"})};
}

std::vector<Contender> scanContenders() {
  const std::string create = HDIUTIL_PROGRAM " create -fs HFS+ -volname V -srcfolder \"$1\"";
  return {shell("find -printf %s", "find \"$1\" -printf %s > \"$2\""),
          shell("hdiutil create", create + " \"$2.dmg\" && mv \"$2.dmg\" \"$2\""), ours("unverified", {})};
}

double megabytes(const fs::path& path) {
  if (!fs::is_directory(path)) return static_cast<double>(fs::file_size(path)) / 1e6;
  double sum = 0;
  for (const auto& entry : fs::recursive_directory_iterator(path))
    if (entry.is_regular_file()) sum += static_cast<double>(entry.file_size()) / 1e6;
  return sum;
}

struct Score {
  bench::Measured best{1e9, 0};
  double size = 0;
};

void runOnce(const Contender& contender, const fs::path& tree, const fs::path& out, int threads,
             Score& score) {
  auto command = contender.command(tree, out, threads);
  command.insert(command.begin(), {"taskset", "-c", "0-" + std::to_string(threads - 1)});
  fs::remove_all(out);
  ::sync();
  if (const auto run = bench::measure(command)) {
    score.best.seconds = std::min(score.best.seconds, run->seconds);
    score.best.peakMegabytes = std::max(score.best.peakMegabytes, run->peakMegabytes);
    score.size = megabytes(out);
  }
  fs::remove_all(out);
}

void race(const std::vector<Contender>& contenders, const fs::path& tree, const Options& options,
          int threads) {
  std::vector<Score> scores(contenders.size());
  for (int round = 0; round < options.rounds; ++round)
    for (std::size_t i = 0; i < contenders.size(); ++i)
      if (round == 0 || !contenders[i].isSlow)
        runOnce(contenders[i], tree, options.folder / "out", threads, scores[i]);
  std::printf("\n%s, %d threads, best of %d\n", tree.filename().c_str(), threads, options.rounds);
  std::printf("%-24s %8s %8s %8s %8s %8s %8s\n", "", "seconds", "of 1st", "of 2nd", "MB", "of 2nd",
              "peak MB");
  for (std::size_t i = 0; i < contenders.size(); ++i) {
    const Score& score = scores[i];
    std::printf("%-24s %8.2f %8.2f %8.2f %8.1f %8.3f %8.0f\n", contenders[i].name.c_str(), score.best.seconds,
                score.best.seconds / scores[0].best.seconds, score.best.seconds / scores[1].best.seconds,
                score.size, score.size / scores[1].size, score.best.peakMegabytes);
  }
  std::fflush(stdout);
}

// In a process of its own, whose memory does not count as that of the contenders started later. A tree counts
// as made once it has its name.
void makeTree(const fs::path& tree, double share, void (*make)(const fs::path&, double)) {
  if (fs::exists(tree)) return;
  const fs::path unfinished = tree.string() + ".unfinished";
  fs::remove_all(unfinished);
  const pid_t child = ::fork();
  if (child == 0) {
    make(unfinished, share);
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
  fs::rename(unfinished, tree);
}

void warm(const fs::path& tree) {
  bench::measure({"sh", "-c", "find \"$1\" -type f -print0 | xargs -0 cat", "sh", tree});
}

int runAll(const Options& options) {
  struct Kind {
    std::string name;
    void (*make)(const fs::path&, double);
    bool isScan;
  };
  std::vector<Kind> kinds{{"mixed", bench::makeMixedTree, false},
                          {"small", bench::makeSmallTree, false},
                          {"large", bench::makeLargeTree, false}};
  if (options.million) kinds.push_back({"million", bench::makeEmptyTree, true});
  for (const auto& [name, make, isScan] : kinds) {
    if (!options.only.empty() && std::ranges::find(options.only, name) == options.only.end()) continue;
    const fs::path tree = options.folder / (options.share < 1 ? name + " quick" : name);
    makeTree(tree, options.share, make);
    warm(tree);
    for (const int threads : options.threads)
      race(isScan ? scanContenders() : imageContenders(), tree, options, threads);
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::string_view> words(arguments + 1, arguments + count);
  if (words.size() >= 3 && words[0] == "create") return createOne({words.begin() + 1, words.end()});
  Options options;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const auto value = [&] { return i + 1 < words.size() ? std::string(words[++i]) : std::string(); };
    if (words[i] == "--quick")
      options.share = 0.1;
    else if (words[i] == "--million")
      options.million = true;
    else if (words[i] == "--rounds")
      options.rounds = std::atoi(value().c_str());
    else if (words[i] == "--threads")
      options.threads.push_back(std::atoi(value().c_str()));
    else if (words[i] == "--only")
      options.only.push_back(value());
    else
      options.folder = words[i];
  }
  if (options.threads.empty()) options.threads = {4, 2};
  if (options.folder.empty() || options.rounds < 1 || std::ranges::min(options.threads) < 1) {
    std::cerr << "usage: image_create_bench FOLDER [--quick] [--rounds N] [--threads N]... [--only TREE]... "
                 "[--million]\n";
    return 64;
  }
  fs::create_directories(options.folder);
  return runAll(options);
}
