#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

#include "image/create.h"
#include "image/volume.h"
#include "tests/tools/scratch_folder.h"

namespace image {
namespace {

namespace fs = std::filesystem;
using Attributes = std::map<std::string, std::string>;

ItemKind kindOf(const struct stat& status) {
  switch (status.st_mode & S_IFMT) {
    case S_IFDIR:
      return ItemKind::folder;
    case S_IFLNK:
      return ItemKind::symbolicLink;
    case S_IFIFO:
      return ItemKind::fifo;
    case S_IFSOCK:
      return ItemKind::socket;
    case S_IFCHR:
      return ItemKind::characterDevice;
    case S_IFBLK:
      return ItemKind::blockDevice;
    default:
      return ItemKind::file;
  }
}

Attributes attributesOf(const fs::path& path) {
  std::vector<char> names(4096);
  std::vector<char> value(1 << 16);
  names.resize(
      static_cast<std::size_t>(std::max<ssize_t>(::llistxattr(path.c_str(), names.data(), names.size()), 0)));
  Attributes found;
  for (auto at = names.begin(); at != names.end(); at = std::find(at, names.end(), '\0') + 1) {
    const std::string name(&*at);
    const ssize_t bytes = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    found[name] = std::string(value.data(), static_cast<std::size_t>(std::max<ssize_t>(bytes, 0)));
  }
  return found;
}

Attributes attributesOf(const Volume& volume, std::uint32_t id) {
  Attributes found;
  const auto names = volume.attributeNames(id);
  EXPECT_TRUE(names) << names.error().message;
  for (const auto& name : *names) {
    const auto value = volume.attribute(id, name);
    EXPECT_TRUE(value) << value.error().message;
    EXPECT_TRUE(value->has_value()) << name;
    EXPECT_TRUE(
        found.emplace(name, std::string(reinterpret_cast<const char*>((*value)->data()), (*value)->size()))
            .second);
  }
  EXPECT_EQ(*volume.attribute(id, "user.no such attribute"), std::nullopt);
  return found;
}

std::string dataOf(const Volume& volume, std::uint32_t id, std::size_t step) {
  std::string data;
  std::vector<std::byte> piece(step);
  while (true) {
    const auto read = volume.read(id, data.size(), piece);
    EXPECT_TRUE(read) << read.error().message;
    if (!read || *read == 0) return data;
    data.append(reinterpret_cast<const char*>(piece.data()), *read);
  }
}

std::string text(std::int64_t seconds, std::int64_t nanoseconds) {
  return std::to_string(seconds) + " s " + std::to_string(nanoseconds) + " ns";
}

class VolumeOfAnImage : public testing::Test {
 protected:
  VolumeOfAnImage() { fs::create_directory(source()); }
  fs::path source() const { return scratch.path() / "source"; }

  void make(Format format = Format::zlib) {
    const auto report = createImage(
        {.source = source(), .volumeName = "Röhre: 1", .image = scratch / "v.dmg", .format = format});
    ASSERT_TRUE(report) << report.error().message;
    auto image = OpenedImage::open(scratch / "v.dmg", nullptr);
    ASSERT_TRUE(image) << image.error().message;
    auto opened = Volume::open(*std::move(image));
    ASSERT_TRUE(opened) << opened.error().message;
    volume = *std::move(opened);
  }

  // Compares everything below a folder with what is there on disk.
  void expectSame(std::uint32_t id, const fs::path& folder) {
    std::map<std::string, Item> listed;
    const auto done = volume->list(id, [&](std::string_view name, const Item& item) {
      EXPECT_TRUE(listed.emplace(name, item).second) << name << " comes twice";
      return base::Result<void>();
    });
    ASSERT_TRUE(done) << done.error().message;
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
    std::set<std::string> found;
    for (const auto& [name, item] : listed) {
      found.insert(name);
      expectSameItem(id, name, item, folder / name);
    }
    EXPECT_EQ(found, names) << folder;
  }

  void expectSameItem(std::uint32_t folder, const std::string& name, const Item& item, const fs::path& path) {
    SCOPED_TRACE(path);
    struct stat status {};
    ASSERT_EQ(::lstat(path.c_str(), &status), 0);
    const auto looked = volume->lookup(folder, name);
    ASSERT_TRUE(looked) << looked.error().message;
    ASSERT_TRUE(*looked);
    EXPECT_EQ((*looked)->id, item.id);
    EXPECT_EQ(volume->item(item.id)->id, item.id);
    EXPECT_EQ(item.kind, kindOf(status));
    EXPECT_EQ(item.permissions, status.st_mode & 07777);
    EXPECT_EQ(item.user, status.st_uid);
    EXPECT_EQ(item.group, status.st_gid);
    EXPECT_EQ(text(item.modified.seconds, item.modified.nanoseconds),
              text(status.st_mtim.tv_sec, status.st_mtim.tv_nsec));
    EXPECT_EQ(text(item.changed.seconds, item.changed.nanoseconds),
              text(status.st_ctim.tv_sec, status.st_ctim.tv_nsec));
    EXPECT_EQ(attributesOf(*volume, item.id), attributesOf(path));
    if (item.kind == ItemKind::folder) return expectSame(item.id, path);
    EXPECT_EQ(item.links, item.kind == ItemKind::symbolicLink ? 1 : status.st_nlink);
    EXPECT_EQ(ids.emplace(status.st_ino, item.id).first->second, item.id);
    EXPECT_EQ(item.size, static_cast<std::uint64_t>(status.st_size));
    if (item.kind == ItemKind::file) {
      EXPECT_TRUE(dataOf(*volume, item.id, 70'001) == readFile(path));
    }
    if (item.kind == ItemKind::symbolicLink) {
      EXPECT_EQ(*volume->linkTarget(item.id), fs::read_symlink(path));
    }
    if (item.kind == ItemKind::characterDevice || item.kind == ItemKind::blockDevice) {
      EXPECT_EQ(item.device >> 20, major(status.st_rdev));
      EXPECT_EQ(item.device & 0xFFFFF, minor(status.st_rdev));
    }
  }

  ScratchFolder scratch;
  std::unique_ptr<Volume> volume;
  // Of the items that were met, by the source's own numbers.
  std::map<ino_t, std::uint32_t> ids;
};

void setModified(const fs::path& path, timespec modified) {
  const timespec times[2]{{.tv_sec = 5, .tv_nsec = 7}, modified};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

// Items of all kinds, the same for each seed.
class SourceTree {
 public:
  SourceTree(fs::path root, unsigned seed) : root_(std::move(root)), random_(seed) {
    folders_.push_back(root_);
    for (std::size_t left = upTo(150); left > 0; --left) add();
  }

 private:
  std::size_t upTo(std::size_t most) { return random_() % (most + 1); }
  template <class T>
  const T& oneOf(const std::vector<T>& choices) {
    return choices[upTo(choices.size() - 1)];
  }

  std::string name() {
    static const std::vector<std::string> pieces{
        "a",   "A",  "b",  "file",   "FILE",   " ", ".", "-",  "ü",       "u\u0308", "é",
        "한",  "글", "日", "😀",      "\u200D", "ß", "Ж", "й",  "%41",     "~2",      "\xE9",
        "x:y", "Ǆ",  "ﬁ",  "\u2126", "Ω",      "i", "I", "\r", "\xFF\xFE"};
    std::string made;
    for (std::size_t n = 1 + upTo(5); n > 0; --n) made += oneOf(pieces);
    if (upTo(12) == 0) made.append(255 - made.size(), upTo(1) == 0 ? 'n' : '\xF1');
    return made == "." || made == ".." ? "dots" : made;
  }

  void add() {
    const fs::path path = oneOf(folders_) / name();
    if (fs::exists(fs::symlink_status(path))) return;
    switch (upTo(10)) {
      case 0:
      case 1:
        fs::create_directory(path);
        folders_.push_back(path);
        break;
      case 2:
        fs::create_symlink("../target ü " + std::to_string(upTo(100)), path);
        break;
      case 3:
        if (files_.empty()) return;
        return fs::create_hard_link(oneOf(files_), path);
      case 4:
        ::mkfifo(path.c_str(), 0640);
        break;
      case 5:
        ::mknod(path.c_str(), S_IFCHR | 0600, makedev(upTo(4095), upTo(0xFFFFF)));
        break;
      default:
        addFile(path);
    }
    adorn(path);
  }

  void addFile(const fs::path& path) {
    static const std::vector<std::size_t> sizes{0, 1, 4095, 4096, 4097, 65'536, 1'048'577, 2'500'000};
    std::string bytes(oneOf(sizes), static_cast<char>('a' + upTo(25)));
    if (upTo(2) == 0)
      for (char& c : bytes) c = static_cast<char>(random_());
    std::ofstream(path, std::ios::binary) << bytes;
    ::chmod(path.c_str(), static_cast<mode_t>(upTo(07777)));
    files_.push_back(path);
  }

  void adorn(const fs::path& path) {
    static const std::vector<std::string> names{"user.note",
                                                "user.user.x",
                                                "user.stashwick.original",
                                                "user.ü",
                                                "trusted.overlay",
                                                "user.com.apple.decmpfs",
                                                "user.com.apple.FinderInfo",
                                                "user.security.y"};
    const bool mayHaveUserAttributes = !fs::is_symlink(path) && !fs::is_other(path);
    for (std::size_t left = upTo(2); left > 0 && mayHaveUserAttributes; --left)
      ::lsetxattr(path.c_str(), oneOf(names).c_str(), std::string(upTo(3900), 'v').data(), upTo(3900) % 64,
                  0);
    if (upTo(9) == 0 && mayHaveUserAttributes)
      ::lsetxattr(path.c_str(), "user.long", std::string(3'900, 'v').data(), 3'850, 0);
    if (upTo(3) == 0) {
      EXPECT_EQ(::lchown(path.c_str(), upTo(70'000), upTo(70'000)), 0);
    }
    static const std::vector<timespec> times{{0, 0},
                                             {1, 999'999'999},
                                             {-1, 5},
                                             {-3'000'000'000, 1},
                                             {4'000'000'000, 3},
                                             {1'700'000'000, 123'456'789}};
    setModified(path, oneOf(times));
  }

  fs::path root_;
  std::mt19937 random_;
  std::vector<fs::path> folders_;
  std::vector<fs::path> files_;
};

class VolumeOfAGeneratedTree : public VolumeOfAnImage, public testing::WithParamInterface<unsigned> {};

TEST_P(VolumeOfAGeneratedTree, isItsSourceItemByItem) {
  const SourceTree tree(source(), GetParam());
  ASSERT_NO_FATAL_FAILURE(make(GetParam() % 2 == 0 ? Format::zlib : Format::raw));
  EXPECT_EQ(volume->facts().name, "Röhre: 1");
  expectSame(volume->rootID(), source());
}

INSTANTIATE_TEST_SUITE_P(Seeds, VolumeOfAGeneratedTree, testing::Range(0u, 12u));

TEST_F(VolumeOfAnImage, findsNamesComposedOrDecomposedButPrefersTheExactOne) {
  scratch.write("source/u\u0308ber", "decomposed");
  scratch.write("source/\u00FCber", "composed");
  scratch.write("source/\u00E9t\u00E9", "summer");
  ASSERT_NO_FATAL_FAILURE(make());
  const auto data = [&](std::string_view name) {
    const auto found = volume->lookup(volume->rootID(), name);
    return *found ? dataOf(*volume, (*found)->id, 100) : "nothing";
  };
  EXPECT_EQ(data("u\u0308ber"), "decomposed");
  EXPECT_EQ(data("\u00FCber"), "composed");
  EXPECT_EQ(data("e\u0301te\u0301"), "summer");
  EXPECT_EQ(data("\u00E9te\u0301"), "summer");
  EXPECT_EQ(data("UBER"), "nothing");
  EXPECT_EQ(data(""), "nothing");
  EXPECT_EQ(data(".."), "nothing");
}

TEST_F(VolumeOfAnImage, givesErrorsForWhatDoesNotExistOrIsOfAnotherKind) {
  scratch.write("source/file", "x");
  fs::create_directory(source() / "folder");
  ASSERT_NO_FATAL_FAILURE(make());
  const auto file = *volume->lookup(volume->rootID(), "file");
  const auto folder = *volume->lookup(volume->rootID(), "folder");
  std::array<std::byte, 4> bytes;
  const auto ignore = [](std::string_view, const Item&) { return base::Result<void>(); };
  EXPECT_FALSE(volume->item(4'000'000));
  EXPECT_FALSE(volume->list(file->id, ignore));
  EXPECT_FALSE(volume->list(1, ignore));
  EXPECT_FALSE(volume->lookup(file->id, "x"));
  EXPECT_FALSE(volume->read(folder->id, 0, bytes));
  EXPECT_FALSE(volume->linkTarget(file->id));
  EXPECT_EQ(*volume->read(file->id, 1, bytes), 0u);
  EXPECT_EQ(*volume->read(file->id, ~0ull, bytes), 0u);
}

TEST_F(VolumeOfAnImage, endsAListingWithTheVisitorsError) {
  for (int i = 0; i < 10; ++i) scratch.write("source/" + std::to_string(i), "x");
  ASSERT_NO_FATAL_FAILURE(make());
  int seen = 0;
  const auto listed =
      volume->list(volume->rootID(), [&](std::string_view, const Item&) -> base::Result<void> {
        if (++seen == 3) return base::Error{"enough"};
        return {};
      });
  ASSERT_FALSE(listed);
  EXPECT_EQ(listed.error().message, "enough");
  EXPECT_EQ(seen, 3);
}

TEST_F(VolumeOfAnImage, isReadByManyThreadsAtOnce) {
  for (int i = 0; i < 40; ++i) {
    const fs::path path =
        scratch.write("source/f" + std::to_string(i % 4) + "/ü" + std::to_string(i),
                      std::string(static_cast<std::size_t>(i) * 30'000, char('a' + i % 26)));
    ::setxattr(path.c_str(), "user.number", &i, sizeof i, 0);
  }
  ASSERT_NO_FATAL_FAILURE(make());
  std::atomic<int> same = 0;
  const auto walk = [&] {
    static_cast<void>(volume->list(volume->rootID(), [&](std::string_view, const Item& folder) {
      return volume->list(folder.id, [&](std::string_view name, const Item& item) -> base::Result<void> {
        const int number = std::stoi(std::string(name.substr(2)));
        const bool whole = dataOf(*volume, item.id, 99'999) ==
                           std::string(static_cast<std::size_t>(number) * 30'000, char('a' + number % 26));
        if (whole && (*volume->lookup(folder.id, name))->id == item.id &&
            volume->attributeNames(item.id)->size() == 1)
          ++same;
        return {};
      });
    }));
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) threads.emplace_back(walk);
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(same, 6 * 40);
}

}  // namespace
}  // namespace image
