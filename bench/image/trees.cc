#include "bench/image/trees.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace bench {
namespace {

namespace fs = std::filesystem;
using Random = std::mt19937_64;

std::string noise(std::size_t count, Random& random) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; i += sizeof(std::uint64_t)) {
    const std::uint64_t word = random();
    std::memcpy(bytes.data() + i, &word, std::min(sizeof word, count - i));
  }
  return bytes;
}

// Texts in an invented language: a few words are frequent and most are rare, and phrases come again. Deflate
// makes about a third of them, as it does of prose.
class Prose {
 public:
  explicit Prose(std::uint64_t seed) : random_(seed) {
    Random letters(1);
    constexpr std::array kSyllables{"ba", "den", "fo",  "gri", "hal", "i",  "jun", "ko",  "la", "men", "no",
                                    "or", "pe",  "qua", "ri",  "s",   "ta", "un",  "ver", "wi", "xa",  "y"};
    for (int i = 0; i < 20'000; ++i) {
      std::string word;
      for (std::size_t n = 1 + letters() % 4; n-- > 0;) word += kSyllables[letters() % kSyllables.size()];
      words_.push_back(word);
    }
  }

  std::string text(std::size_t count) {
    std::string text;
    while (text.size() < count) text += phrase();
    text.resize(count);
    return text;
  }

 private:
  std::string phrase() {
    constexpr std::size_t kRemembered = 64;
    if (phrases_.size() == kRemembered && random_() % 4 == 0) return phrases_[random_() % kRemembered];
    std::string made;
    for (std::size_t n = 3 + random_() % 6; n-- > 0;) made += word() + (n == 0 ? ", " : " ");
    if (random_() % 4 == 0) made += "\n";
    if (phrases_.size() < kRemembered)
      phrases_.push_back(made);
    else
      phrases_[random_() % kRemembered] = made;
    return made;
  }

  const std::string& word() {
    const double uniform = static_cast<double>(random_() >> 11) * 0x1p-53;
    return words_[static_cast<std::size_t>(std::pow(uniform, 4) * static_cast<double>(words_.size()))];
  }

  Random random_;
  std::vector<std::string> words_;
  std::vector<std::string> phrases_;
};

void writeFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

int count(int whole, double share) { return std::max(1, static_cast<int>(whole * share)); }

// Noise, then zeros that are written, then a hole, as disk images and films being downloaded have them.
void writeLargeFile(const fs::path& path, Random& random) {
  constexpr std::size_t kNoise = 5'000'000;
  constexpr std::size_t kZeros = 200'000;
  constexpr std::size_t kHole = 380'000;
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  std::size_t size = 0;
  for (int part = 0; part < 6; ++part, size += kNoise + kZeros + kHole) {
    file.seekp(static_cast<std::streamoff>(size));
    file << noise(kNoise, random) << std::string(kZeros, '\0');
  }
  file.close();
  fs::resize_file(path, size);
}

}  // namespace

void makeMixedTree(const fs::path& folder, double share) {
  Random random(2);
  Prose prose(3);
  for (int i = 0; i < count(3000, share); ++i) {
    const std::size_t size = 20'000 + random() % 294'000;
    writeFile(folder / std::to_string(i / 100) / ("file " + std::to_string(i)),
              i % 2 == 0 ? noise(size, random) : prose.text(size));
  }
}

void makeSmallTree(const fs::path& folder, double share) {
  Random random(4);
  Prose prose(5);
  for (int i = 0; i < count(60'000, share); ++i)
    writeFile(folder / std::to_string(i / 200) / ("note " + std::to_string(i) + ".txt"),
              prose.text(500 + random() % 10'000));
}

void makeLargeTree(const fs::path& folder, double share) {
  Random random(6);
  for (int i = 0; i < count(20, share); ++i) writeLargeFile(folder / ("film " + std::to_string(i)), random);
}

void makeEmptyTree(const fs::path& folder, double share) {
  for (int i = 0; i < count(10'000, share); ++i) {
    const fs::path below = folder / ("folder " + std::to_string(i));
    fs::create_directories(below);
    for (int j = 0; j < 100; ++j) std::ofstream(below / ("empty " + std::to_string(j)));
  }
}

}  // namespace bench
