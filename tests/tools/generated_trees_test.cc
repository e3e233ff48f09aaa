#include <algorithm>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "tests/tools/hdiutil_run.h"
#include "tests/tools/scratch_folder.h"

namespace {

namespace fs = std::filesystem;

// A tree that follows from its seed: names of all kinds, sizes around the block and chunk sizes, links,
// attributes, holes.
class GeneratedTree {
 public:
  GeneratedTree(const ScratchFolder& scratch, unsigned seed) : scratch_(scratch), random_(seed) {
    fs::create_directory(scratch / "source");
    for (std::size_t left = upTo(120); left > 0; --left) addItem();
  }

 private:
  std::size_t upTo(std::size_t most) { return random_() % (most + 1); }

  std::string name() {
    static const std::vector<std::string> pieces{
        "a",  "A", "b",      "file", "FILE", " ", ".",   "-",  "ü",    "u\u0308", "é", "한", "글",
        "日", "😀", "\u200D", "ß",    "Ж",    "й", "%41", "~2", "\xE9", "x:y",     "Ǆ", "ﬁ"};
    std::string made;
    for (std::size_t n = 1 + upTo(6); n > 0; --n) made += pieces[upTo(pieces.size() - 1)];
    // Longer decomposed ones are more than Linux lets 7-Zip unpack.
    if (upTo(20) == 0) made.append(150 - made.size(), 'n');
    return made == "." || made == ".." ? "dots" : made;
  }

  std::string bytes() {
    static const std::vector<std::size_t> sizes{0,    1,      511,       512,       4095,     4096,
                                                4097, 65'536, 1'048'576, 1'048'577, 2'500'000};
    const std::size_t size = sizes[upTo(upTo(9) == 0 ? sizes.size() - 1 : 6)];
    std::string made(size, static_cast<char>('a' + upTo(25)));
    if (upTo(2) == 0)
      for (char& c : made) c = static_cast<char>(random_());
    if (upTo(3) == 0) std::fill_n(made.begin(), size / 2, '\0');
    return made;
  }

  void addItem() {
    const fs::path folder = folders_[upTo(folders_.size() - 1)];
    const fs::path path = scratch_.path() / "source" / folder / name();
    if (fs::exists(fs::symlink_status(path))) return;
    switch (upTo(9)) {
      case 0:
      case 1:
        fs::create_directory(path);
        folders_.push_back(path.lexically_relative(scratch_.path() / "source"));
        return;
      case 2:
        fs::create_symlink("target " + std::to_string(upTo(100)), path);
        return;
      case 3:
        if (files_.empty()) return;
        fs::create_hard_link(files_[upTo(files_.size() - 1)], path);
        return;
      case 4:
        ::mkfifo(path.c_str(), 0640);
        return;
      default:
        scratch_.write(path.lexically_relative(scratch_.path()).string(), bytes());
        if (upTo(4) == 0) fs::resize_file(path, fs::file_size(path) + upTo(3'000'000));
        if (upTo(5) == 0) ::setxattr(path.c_str(), "user.note", "value", upTo(5), 0);
        ::chmod(path.c_str(), static_cast<mode_t>(upTo(0777)));
        files_.push_back(path);
    }
  }

  const ScratchFolder& scratch_;
  std::mt19937 random_;
  std::vector<fs::path> folders_{""};
  std::vector<fs::path> files_;
};

// How often each content occurs below a folder; 7-Zip's names cannot always be compared, what is in the files
// can. Links and pipes have no content there.
std::map<std::string, int> contents(const fs::path& folder, bool isUnpacked) {
  std::map<std::string, int> found;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_symlink()) {
      ++found["link " + fs::read_symlink(entry.path()).string()];
    } else if (entry.is_regular_file()) {
      const bool isExtra = isUnpacked && entry.path().filename().string().find(':') != std::string::npos;
      if (!isExtra && (isUnpacked || entry.hard_link_count() == 1)) ++found["file " + readFile(entry.path())];
    }
  }
  found.erase("file ");
  return found;
}

// The same of the files with several names, each file once.
std::map<std::string, int> linkedContents(const fs::path& folder) {
  std::map<std::string, int> found;
  std::set<ino_t> seen;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_symlink() || !entry.is_regular_file() || entry.hard_link_count() == 1) continue;
    struct stat status {};
    ::stat(entry.path().c_str(), &status);
    if (seen.insert(status.st_ino).second) ++found["file " + readFile(entry.path())];
  }
  return found;
}

// HDIUTIL_TREES says how many trees to go through.
unsigned treeCount() {
  const char* const count = std::getenv("HDIUTIL_TREES");
  return count == nullptr ? 8 : static_cast<unsigned>(std::atoi(count));
}

TEST(GeneratedTrees, comeBackWholeThroughOtherPrograms) {
  for (unsigned seed = 1; seed <= treeCount(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const ScratchFolder scratch;
    const GeneratedTree tree(scratch, seed);
    const std::string image = scratch / "v.dmg";
    const auto run = runHdiutil({"create", "-srcfolder", scratch / "source", "-volname", "V", image});
    ASSERT_EQ(run.status, 0) << run.error;
    const auto test = runShell("7zz t -tdmg " + shellWord(image));
    ASSERT_EQ(test.status, 0) << test.output;
    ASSERT_THAT(test.output, testing::Not(testing::HasSubstr("WARNING")));
    runShell("cd " + shellWord(scratch.path().string()) +
             " && 7zz x -y -oout v.dmg; 7zz x -y -tdmg -so v.dmg 4.hfs 4.hfsx > v.hfs");
    ASSERT_EQ(runShell("fshfsinfo -H " + shellWord(scratch / "v.hfs")).status, 0);
    auto expected = contents(scratch / "source", false);
    for (const auto& [content, count] : linkedContents(scratch / "source")) expected[content] += count;
    expected.erase("file ");
    const auto found = contents(scratch / "out/V", true);
    for (const auto& [content, count] : expected) {
      const auto same = found.find(content);
      ASSERT_EQ(same == found.end() ? 0 : same->second, count)
          << content.size() << " bytes: " << content.substr(0, 40);
    }
    ASSERT_EQ(found.size(), expected.size());
  }
}

}  // namespace
