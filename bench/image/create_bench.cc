// Times the creation of disk images beside the tools that people would use instead, on trees of its own
// making:
//   image_create_bench FOLDER [ROUNDS]
// FOLDER needs about 5 GB of room and is where the trees, copies and images go. Prints the best of ROUNDS
// (default 3) wall times in seconds, and sizes.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "image/create.h"

namespace {

namespace fs = std::filesystem;

std::string noise(std::size_t count, std::mt19937_64& random) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i + 8 <= count; i += 8) {
    const std::uint64_t word = random();
    std::copy_n(reinterpret_cast<const char*>(&word), 8, bytes.begin() + static_cast<std::ptrdiff_t>(i));
  }
  return bytes;
}

std::string prose(std::size_t count, std::mt19937_64& random) {
  static const std::vector<std::string> words = [] {
    std::mt19937_64 letters(1);
    std::vector<std::string> made;
    for (int i = 0; i < 4000; ++i) {
      std::string word;
      for (std::size_t n = 2 + letters() % 9; n-- > 0;) word += static_cast<char>('a' + letters() % 26);
      made.push_back(word + " ");
    }
    return made;
  }();
  std::string text;
  while (text.size() < count) text += words[std::min(random() % words.size(), random() % words.size())];
  text.resize(count);
  return text;
}

void writeFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

// 3,000 files, 500 MB, half of it incompressible.
void makeMixed(const fs::path& tree) {
  std::mt19937_64 random(2);
  for (int i = 0; i < 3000; ++i) {
    const std::size_t size = 20'000 + random() % 294'000;
    writeFile(tree / std::to_string(i / 100) / ("file " + std::to_string(i)),
              i % 2 == 0 ? noise(size, random) : prose(size, random));
  }
}

// 60,000 text files, 440 MB as file systems allocate them.
void makeSmall(const fs::path& tree) {
  std::mt19937_64 random(3);
  for (int i = 0; i < 60'000; ++i)
    writeFile(tree / std::to_string(i / 200) / ("note " + std::to_string(i) + ".txt"),
              prose(500 + random() % 10'000, random));
}

// 20 files, 672 MB, mostly noise, some zeros and holes.
void makeLarge(const fs::path& tree) {
  std::mt19937_64 random(4);
  for (int i = 0; i < 20; ++i) {
    const fs::path path = tree / ("film " + std::to_string(i));
    writeFile(path, noise(30'000'000, random) + std::string(1'800'000, '\0'));
    fs::resize_file(path, 33'600'000);
  }
}

double timed(const std::function<void()>& action) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void shell(const std::string& line) {
  if (std::system((line + " > /dev/null 2>&1").c_str()) != 0) std::cerr << "failed: " << line << "\n";
}

struct Contender {
  std::string name;
  // Makes `out` from `tree`.
  std::function<void(const fs::path& tree, const fs::path& out)> make;
};

Contender ours(const std::string& name, unsigned workers, bool verifies, bool encrypts) {
  return {name, [=](const fs::path& tree, const fs::path& out) {
            image::CreateRequest request{
                .source = tree, .volumeName = "V", .image = out, .verifies = verifies, .workers = workers};
            if (encrypts)
              request.encryption.emplace(
                  image::Encryption{image::crypt::Method::aes256, base::Secret("password")});
            if (const auto report = image::createImage(request); !report)
              std::cerr << report.error().message << "\n";
          }};
}

std::uintmax_t sizeOf(const fs::path& path) {
  if (!fs::is_directory(path)) return fs::file_size(path);
  std::uintmax_t bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(path))
    if (entry.is_regular_file()) bytes += entry.file_size();
  return bytes;
}

void race(const std::string& treeName, const fs::path& folder, int rounds) {
  const fs::path tree = folder / treeName;
  const fs::path out = folder / "out.dmg";
  const std::vector<Contender> contenders{
      {"cp -a; sync",
       [](const fs::path& t, const fs::path& o) {
         shell("cp -a '" + t.string() + "' '" + o.string() + "'; sync -f '" + o.string() + "'");
       }},
      {"mksquashfs gzip 1",
       [](const fs::path& t, const fs::path& o) {
         shell("mksquashfs '" + t.string() + "' '" + o.string() +
               "' -comp gzip -Xcompression-level 1 -no-progress");
       }},
      ours("hdiutil, verified", 4, true, false),
      ours("hdiutil, verified, 2 threads", 2, true, false),
      ours("hdiutil, not verified", 4, false, false),
      ours("hdiutil, not verified, AES-256", 4, false, true)};
  std::vector<double> best(contenders.size(), 1e9);
  std::vector<std::uintmax_t> sizes(contenders.size());
  for (int round = 0; round < rounds; ++round)
    for (std::size_t i = 0; i < contenders.size(); ++i) {
      best[i] = std::min(best[i], timed([&] { contenders[i].make(tree, out); }));
      sizes[i] = sizeOf(out);
      fs::remove_all(out);
      shell("sync");
    }
  for (std::size_t i = 0; i < contenders.size(); ++i)
    std::printf("%-6s  %-32s %7.2f s  %6.1f MB  %5.2f of cp  %5.2f of mksquashfs\n", treeName.c_str(),
                contenders[i].name.c_str(), best[i], static_cast<double>(sizes[i]) / 1e6, best[i] / best[0],
                best[i] / best[1]);
  std::fflush(stdout);
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 2) {
    std::cerr << "usage: image_create_bench FOLDER [ROUNDS]\n";
    return 64;
  }
  const fs::path folder = arguments[1];
  const int rounds = count > 2 ? std::atoi(arguments[2]) : 3;
  const std::vector<std::pair<std::string, std::function<void(const fs::path&)>>> trees{
      {"mixed", makeMixed}, {"small", makeSmall}, {"large", makeLarge}};
  for (const auto& [name, make] : trees) {
    if (!fs::exists(folder / name)) make(folder / name);
    race(name, folder, rounds);
  }
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  std::printf("peak memory of the library: %ld MB\n", usage.ru_maxrss / 1024);
  return 0;
}
