#include "image/fuse/read_ahead.h"

#include <gmock/gmock.h>
#include <numeric>

#include "tests/image/fuse/memory_volume.h"

namespace {

using image::fuse::ReadAhead;
using testing::Contains;
using testing::Not;

constexpr std::uint32_t kRoot = MemoryVolume::kRoot;

class FilesReadAhead : public testing::Test {
 protected:
  std::uint32_t add(const std::string& data) {
    return volume.addFile(kRoot, std::to_string(files.size()), data).id;
  }
  void fillFolder(int count) {
    for (int i = 0; i < count; ++i) files.push_back(add("file " + std::to_string(i)));
  }
  bool take(std::uint32_t file, std::span<std::byte> bytes) {
    const base::MutexLock lock(mutex);
    taken.emplace_back(file, std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    arrived.notify_all();
    return uses;
  }
  // Until the thread has come to the file.
  std::vector<std::uint32_t> takenUpTo(std::uint32_t last) {
    const base::MutexLock lock(mutex);
    std::vector<std::uint32_t> names;
    const auto wasTaken = [&] {
      names.clear();
      for (const auto& each : taken) names.push_back(each.first);
      return std::ranges::find(names, last) != names.end();
    };
    while (!wasTaken()) arrived.wait(mutex);
    return names;
  }

  MemoryVolume volume{"STICK"};
  std::vector<std::uint32_t> files;
  bool uses = true;
  base::Mutex mutex;
  std::condition_variable_any arrived;
  std::vector<std::pair<std::uint32_t, std::string>> taken;
  ReadAhead ahead{volume,
                  [this](std::uint32_t file, std::span<std::byte> bytes) { return take(file, bytes); }};
};

TEST_F(FilesReadAhead, areTheOthersOfAFolderOnceSomeWereRead) {
  fillFolder(20);
  ahead.wasListed({files.rbegin(), files.rend()});
  for (const int i : {5, 2, 9}) ahead.wasRead(files[i]);
  std::vector<std::uint32_t> expected(files.begin() + 10, files.end());
  expected.insert(expected.end(), files.begin(), files.begin() + 10);
  EXPECT_EQ(takenUpTo(files[9]), expected);
  EXPECT_EQ(taken[0].second, "file 10");
}

TEST_F(FilesReadAhead, areNoneOfAFolderOfWhichFewWereReadNorOfOneNeverListed) {
  fillFolder(40);
  ahead.wasListed({files.begin(), files.begin() + 10});
  ahead.wasListed({files.begin() + 10, files.begin() + 20});
  for (const int i : {0, 1, 30, 31, 32, 33, 10, 11, 12}) ahead.wasRead(files[i]);
  EXPECT_THAT(takenUpTo(files[12]), Not(Contains(testing::Lt(files[10]))));
  EXPECT_THAT(takenUpTo(files[12]), Not(Contains(testing::Ge(files[20]))));
}

TEST_F(FilesReadAhead, areMoreTheMoreWasReadOfALargeFolder) {
  fillFolder(1000);
  ahead.wasListed(files);
  for (const int i : {0, 1, 2}) ahead.wasRead(files[i]);
  EXPECT_EQ(takenUpTo(files[66]).size(), 64);
  ahead.wasRead(files[500]);
  EXPECT_EQ(takenUpTo(files[66 + 128]).size(), 64 + 128);
}

TEST_F(FilesReadAhead, areNeitherLargeNorDamagedNorEmpty) {
  fillFolder(4);
  const auto large = add(std::string(ReadAhead::kMostBytes + 1, 'x'));
  const auto empty = add("");
  const auto damaged = add("damaged");
  volume.damage(damaged);
  const auto whole = add(std::string(ReadAhead::kMostBytes, 'x'));
  ahead.wasListed({files[0], files[1], files[2], files[3], large, empty, damaged, whole});
  for (const int i : {0, 1, 2}) ahead.wasRead(files[i]);
  EXPECT_EQ(takenUpTo(files[2]), (std::vector{files[3], whole, files[0], files[1], files[2]}));
}

TEST_F(FilesReadAhead, endForAFolderWhoseFilesNobodyHasUseFor) {
  fillFolder(1000);
  ahead.wasListed({files.begin(), files.begin() + 900});
  ahead.wasListed({files.begin() + 900, files.end()});
  uses = false;
  for (const int i : {0, 1, 2}) ahead.wasRead(files[i]);
  takenUpTo(files[34]);
  for (const int i : {900, 901, 902}) ahead.wasRead(files[i]);
  EXPECT_EQ(takenUpTo(files[903])[32], files[903]);
}

TEST_F(FilesReadAhead, areNoneOnceItIsStopped) {
  fillFolder(10);
  ahead.wasListed(files);
  ahead.stop();
  for (const std::uint32_t file : files) ahead.wasRead(file);
  EXPECT_TRUE(ahead.hasStopped());
}

}  // namespace
