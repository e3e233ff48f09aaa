#include "image/fuse/mount.h"

#include <array>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <thread>

#include "image/fuse/mount_table.h"
#include "image/fuse/unmount.h"
#include "image/os/file_descriptor.h"
#include "tests/image/fuse/memory_volume.h"
#include "tests/support/own_mounts.h"
#include "tests/tools/scratch_folder.h"

namespace {

namespace fs = std::filesystem;
using namespace image;
using testing::HasSubstr;

constexpr std::uint32_t kRoot = MemoryVolume::kRoot;

class MountedImage : public testing::Test {
 protected:
  MountedImage() { takeOwnMountsAsRoot(); }
  ~MountedImage() override {
    for (const auto& mount : fuse::mountTable())
      if (mount.mountPoint.starts_with(scratch.path().string())) {
        if (mount.server) ::kill(mount.server->process, SIGKILL);
        EXPECT_TRUE(fuse::detach(mount.mountPoint, fuse::Detach::atOnce));
      }
  }

  base::Result<Mounted> mount(MountRequest request) const {
    request.volumesFolder = volumes;
    return fuse::mountVolume(request, [this] {
      return base::Result<std::unique_ptr<Volume>>(std::make_unique<MemoryVolume>(volume));
    });
  }
  base::Result<Mounted> mount() const { return mount({.image = image}); }
  testing::AssertionResult mounts() const {
    const auto mounted = mount();
    return mounted ? testing::AssertionSuccess() : testing::AssertionFailure() << mounted.error().message;
  }
  base::Result<std::string> unmount(const std::string& from, bool force = false) const {
    return fuse::unmount({.place = from, .force = force, .volumesFolder = volumes});
  }
  fuse::Server server() const { return *fuse::mountAt(place)->server; }
  void killServer() const {
    const auto killed = server();
    ::kill(killed.process, SIGKILL);
    ASSERT_TRUE(fuse::waitForEnd(killed.process, std::chrono::seconds(30)));
  }
  std::vector<std::string> namesIn(const std::string& folder) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
    return names;
  }

  ScratchFolder scratch;
  const std::string volumes = fs::canonical(scratch.path()) / "Volumes";
  const std::string place = volumes + "/STICK-Backup";
  const std::string image = scratch.write("image.dmg", "of this kind");
  MemoryVolume volume{"STICK-Backup"};
};

TEST_F(MountedImage, isAFolderOfTheVolumesName) {
  volume.addFile(kRoot, "notes.txt", "some notes\n");
  const auto mounted = mount();
  ASSERT_TRUE(mounted) << mounted.error().message;
  EXPECT_EQ(mounted->mountPoint, place);
  EXPECT_EQ(mounted->volumeName, "STICK-Backup");
  EXPECT_FALSE(mounted->wasMounted);
  EXPECT_EQ(readFile(place + "/notes.txt"), "some notes\n");
}

TEST_F(MountedImage, isGoneWithItsFolderAndServerOnceUnmounted) {
  ASSERT_TRUE(mounts());
  const auto served = server();
  const auto unmounted = unmount(place + "/");
  ASSERT_TRUE(unmounted) << unmounted.error().message;
  EXPECT_EQ(*unmounted, place);
  EXPECT_FALSE(served.isAlive());
  EXPECT_FALSE(fs::exists(place));
}

TEST_F(MountedImage, listsFoldersOfAnySize) {
  auto& folder = volume.add(kRoot, "many", ItemKind::folder);
  std::vector<std::string> expected;
  for (int i = 0; i < 3000; ++i) {
    expected.push_back("a file with a rather long name, number " + std::to_string(i));
    volume.addFile(folder.id, expected.back(), std::to_string(i));
  }
  ASSERT_TRUE(mounts());
  EXPECT_THAT(namesIn(place + "/many"), testing::UnorderedElementsAreArray(expected));
  EXPECT_EQ(readFile(place + "/many/" + expected[2999]), "2999");
}

TEST_F(MountedImage, findsNamesOfAnyBytesAndNoOthers) {
  volume.addFile(kRoot, "\xFF\xFE not UTF-8", "1");
  volume.addFile(kRoot, "back\\slash\nline", "2");
  ASSERT_TRUE(mounts());
  EXPECT_EQ(readFile(place + "/\xFF\xFE not UTF-8"), "1");
  EXPECT_EQ(readFile(place + "/back\\slash\nline"), "2");
  EXPECT_FALSE(fs::exists(place + "/other"));
}

TEST_F(MountedImage, keepsModeOwnerTimesAndSize) {
  auto& item = volume.addFile(kRoot, "file", std::string(5000, 'x'));
  item.permissions = 04751;
  item.user = 1234;
  item.group = 5678;
  item.modified = {-5, 123456789};
  item.accessed = {1600000000, 1};
  ASSERT_TRUE(mounts());
  struct stat status {};
  ASSERT_EQ(::lstat((place + "/file").c_str(), &status), 0);
  EXPECT_EQ(status.st_ino, item.id);
  EXPECT_EQ(status.st_mode, S_IFREG | 04751U);
  EXPECT_EQ(status.st_uid, 1234U);
  EXPECT_EQ(status.st_gid, 5678U);
  EXPECT_EQ(status.st_size, 5000);
  EXPECT_EQ(status.st_blocks, 16);
  EXPECT_EQ(status.st_mtim.tv_sec, -5);
  EXPECT_EQ(status.st_mtim.tv_nsec, 123456789);
  EXPECT_EQ(status.st_atim.tv_sec, 1600000000);
}

TEST_F(MountedImage, showsLinksAndDevicesAsWhatTheyAre) {
  volume.addLink(kRoot, "link", "some/where else");
  volume.add(kRoot, "null", ItemKind::characterDevice).device = (1U << 20) | 3;
  volume.add(kRoot, "pipe", ItemKind::fifo);
  auto& file = volume.addFile(kRoot, "one", "shared");
  file.links = 2;
  volume.addName(kRoot, "two", file.id);
  ASSERT_TRUE(mounts());
  EXPECT_EQ(fs::read_symlink(place + "/link"), "some/where else");
  EXPECT_TRUE(fs::is_fifo(place + "/pipe"));
  struct stat status {};
  ASSERT_EQ(::lstat((place + "/null").c_str(), &status), 0);
  EXPECT_TRUE(S_ISCHR(status.st_mode));
  EXPECT_EQ(status.st_rdev, makedev(1, 3));
  EXPECT_TRUE(fs::equivalent(place + "/one", place + "/two"));
  EXPECT_EQ(fs::hard_link_count(place + "/one"), 2U);
}

TEST_F(MountedImage, readsFromAnyPlaceOfAFile) {
  std::string data(3'000'001, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 31 + (i >> 12));
  volume.addFile(kRoot, "large", data);
  ASSERT_TRUE(mounts());
  EXPECT_EQ(readFile(place + "/large"), data);
  const os::FileDescriptor file(::open((place + "/large").c_str(), O_RDONLY));
  std::string piece(100, '\0');
  EXPECT_EQ(::pread(file.number(), piece.data(), 100, 2'999'950), 51);
  EXPECT_EQ(piece.substr(0, 51), data.substr(2'999'950));
}

TEST_F(MountedImage, readsWholeFoldersOfSmallFilesInAnyOrder) {
  auto& folder = volume.add(kRoot, "many", ItemKind::folder);
  std::vector<std::string> names;
  const auto dataOf = [](const std::string& name) { return name + std::string(name.size() * 500, name[0]); };
  for (int i = 0; i < 500; ++i) {
    names.push_back(std::to_string(i * 7919 % 500));
    volume.addFile(folder.id, names.back(), dataOf(names.back()));
  }
  ASSERT_TRUE(mounts());
  EXPECT_THAT(namesIn(place + "/many"), testing::UnorderedElementsAreArray(names));
  for (int i = 0; i < 500; ++i) {
    const std::string name = std::to_string(i);
    ASSERT_TRUE(readFile(place + "/many/" + name) == dataOf(name)) << name;
  }
  for (const std::string& name : names)
    ASSERT_EQ(fs::file_size(place + "/many/" + name), dataOf(name).size());
}

TEST_F(MountedImage, givesExtendedAttributes) {
  const auto id = volume.addFile(kRoot, "file", "").id;
  volume.addAttribute(id, "user.colour", "blue");
  volume.addAttribute(id, "trusted.secret", "for root");
  ASSERT_TRUE(mounts());
  const std::string path = place + "/file";
  std::string names(100, '\0');
  names.resize(static_cast<std::size_t>(::listxattr(path.c_str(), names.data(), names.size())));
  EXPECT_EQ(names.find("user.colour") != names.npos, true);
  EXPECT_EQ(names.find("trusted.secret") != names.npos, ::geteuid() == 0);
  std::string value(4, '\0');
  EXPECT_EQ(::getxattr(path.c_str(), "user.colour", nullptr, 0), 4);
  EXPECT_EQ(::getxattr(path.c_str(), "user.colour", value.data(), value.size()), 4);
  EXPECT_EQ(value, "blue");
  EXPECT_EQ(::getxattr(path.c_str(), "user.colour", value.data(), 3), -1);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(::getxattr(path.c_str(), "user.other", value.data(), value.size()), -1);
  EXPECT_EQ(errno, ENODATA);
}

TEST_F(MountedImage, cannotBeWrittenTo) {
  volume.addFile(kRoot, "file", "text");
  ASSERT_TRUE(mounts());
  EXPECT_EQ(::open((place + "/file").c_str(), O_WRONLY), -1);
  EXPECT_EQ(errno, EROFS);
  EXPECT_EQ(::unlink((place + "/file").c_str()), -1);
  EXPECT_EQ(errno, EROFS);
  EXPECT_EQ(::mkdir((place + "/folder").c_str(), 0700), -1);
  EXPECT_EQ(errno, EROFS);
}

TEST_F(MountedImage, tellsHowLargeItIs) {
  ASSERT_TRUE(mounts());
  struct statvfs facts {};
  ASSERT_EQ(::statvfs(place.c_str(), &facts), 0);
  EXPECT_EQ(facts.f_frsize * facts.f_blocks, 1U << 20);
  EXPECT_EQ(facts.f_frsize * facts.f_bfree, 1U << 19);
  EXPECT_NE(facts.f_flag & ST_RDONLY, 0U);
}

TEST_F(MountedImage, givesAnErrorForWhatIsDamagedAndGoesOn) {
  const auto id = volume.addFile(kRoot, "bad", "text").id;
  volume.addFile(kRoot, "good", "text");
  volume.damage(id);
  ASSERT_TRUE(mounts());
  const os::FileDescriptor file(::open((place + "/bad").c_str(), O_RDONLY));
  char byte = 0;
  EXPECT_EQ(::read(file.number(), &byte, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(readFile(place + "/good"), "text");
}

TEST_F(MountedImage, letsGoOfTheCallersStreamsSessionAndFolder) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  const int before = ::dup(STDERR_FILENO);
  ::dup2(ends[1], STDERR_FILENO);
  const auto mounted = mount();
  ::dup2(before, STDERR_FILENO);
  ::close(before);
  ASSERT_TRUE(mounted) << mounted.error().message;
  const std::string process = "/proc/" + std::to_string(server().process);
  for (const char* stream : {"0", "1", "2"})
    EXPECT_EQ(fs::read_symlink(process + "/fd/" + stream), "/dev/null");
  EXPECT_EQ(fs::read_symlink(process + "/cwd"), "/");
  EXPECT_EQ(::getsid(server().process), server().process);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(MountedImage, staysTheOneMountWhenItIsMountedAgain) {
  ASSERT_TRUE(mounts());
  const auto again = mount();
  ASSERT_TRUE(again) << again.error().message;
  EXPECT_TRUE(again->wasMounted);
  EXPECT_EQ(again->mountPoint, place);
  ASSERT_TRUE(unmount(place));
  EXPECT_FALSE(fuse::mountAt(place));
}

TEST_F(MountedImage, refusesThePlaceOfAnotherImage) {
  ASSERT_TRUE(mounts());
  const auto other = mount({.image = scratch.write("other.dmg", "another")});
  ASSERT_FALSE(other);
  EXPECT_THAT(other.error().message, HasSubstr("taken by another image"));
}

TEST_F(MountedImage, refusesThePlaceOfItsOwnFormerContents) {
  ASSERT_TRUE(mounts());
  scratch.write("image.dmg", "changed since");
  EXPECT_FALSE(mount());
}

TEST_F(MountedImage, findsAFreeNameWhenAsked) {
  ASSERT_TRUE(mounts());
  const auto other = mount(
      {.image = scratch.write("other.dmg", "another"), .takenName = MountRequest::TakenName::findFreeOne});
  ASSERT_TRUE(other) << other.error().message;
  EXPECT_EQ(other->mountPoint, place + " 1");
  EXPECT_TRUE(unmount("/Volumes/STICK-Backup 1"));
  EXPECT_FALSE(fs::exists(place + " 1"));
}

TEST_F(MountedImage, refusesAFolderWithSomethingInItAndAFile) {
  fs::create_directories(place);
  std::ofstream(place + "/file") << "text";
  EXPECT_THAT(mount().error().message, HasSubstr("no empty folder"));
  fs::remove_all(place);
  std::ofstream file(place);
  EXPECT_THAT(mount().error().message, HasSubstr("no empty folder"));
  EXPECT_TRUE(fs::is_regular_file(place));
}

TEST_F(MountedImage, refusesThePlaceOfAnotherMount) {
  ASSERT_NO_FATAL_FAILURE(takeOwnMounts());
  fs::create_directories(place);
  ASSERT_EQ(::mount("none", place.c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_THAT(mount().error().message, HasSubstr("taken by another mount"));
  EXPECT_THAT(unmount(place).error().message, HasSubstr("no image's mount"));
}

TEST_F(MountedImage, refusesTheNameOfAVolumeElsewhere) {
  ASSERT_NO_FATAL_FAILURE(takeOwnMounts());
  const std::string elsewhere = scratch / "media/STICK-Backup";
  fs::create_directories(elsewhere);
  ASSERT_EQ(::mount("none", elsewhere.c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_THAT(mount().error().message, HasSubstr("another volume of the name"));
  EXPECT_FALSE(fs::exists(place));
  EXPECT_TRUE(mount({.image = image, .takenName = MountRequest::TakenName::findFreeOne}));
}

TEST_F(MountedImage, mayBeMountedAtAPlaceOfItsOwn) {
  volume.addFile(kRoot, "file", "text");
  const auto mounted = mount({.image = image, .mountPoint = scratch / "here"});
  ASSERT_TRUE(mounted) << mounted.error().message;
  EXPECT_EQ(readFile(scratch / "here/file"), "text");
  EXPECT_TRUE(unmount(scratch / "here"));
  EXPECT_FALSE(fs::exists(scratch / "here"));
}

TEST_F(MountedImage, isRefusedForAVolumeWhoseNameIsNoFolders) {
  for (const char* name : {"", ".", "..", "a/b", "line\nbreak", "delete\x7F"}) {
    volume = MemoryVolume(name);
    EXPECT_THAT(mount().error().message, HasSubstr("can be no folder's")) << name;
  }
}

TEST_F(MountedImage, isRefusedForAVolumeThatCannotBeOpened) {
  const auto mounted = fuse::mountVolume({.image = image, .volumesFolder = volumes}, [] {
    return base::Result<std::unique_ptr<Volume>>(base::Error{"no volume"});
  });
  EXPECT_EQ(mounted.error().message, "no volume");
}

TEST_F(MountedImage, isUnmountedByItsLogicalPathAndByItsImage) {
  ASSERT_TRUE(mounts());
  EXPECT_TRUE(unmount("/Volumes/STICK-Backup/"));
  ASSERT_TRUE(mounts());
  EXPECT_TRUE(unmount(image));
  EXPECT_FALSE(fuse::mountAt(place));
}

TEST_F(MountedImage, isNotUnmountedWhereNothingIsMounted) {
  for (const std::string& nothing : {place, image, std::string("/Volumes/STICK-Backup"), scratch / "gone"})
    EXPECT_THAT(unmount(nothing).error().message, HasSubstr("nothing is mounted at"));
}

TEST_F(MountedImage, isBusyWhileAFileIsOpenButYieldsToForce) {
  volume.addFile(kRoot, "file", "text");
  ASSERT_TRUE(mounts());
  const auto served = server();
  const os::FileDescriptor file(::open((place + "/file").c_str(), O_RDONLY));
  const auto refused = unmount(place);
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error().message, HasSubstr("busy"));
  EXPECT_TRUE(served.isAlive());
  EXPECT_TRUE(unmount(place, true));
  EXPECT_FALSE(served.isAlive());
  EXPECT_FALSE(fs::exists(place));
}

TEST_F(MountedImage, isUnmountedWhenItsServerIsToldToEnd) {
  ASSERT_TRUE(mounts());
  const auto served = server();
  ::kill(served.process, SIGTERM);
  EXPECT_TRUE(fuse::waitForEnd(served.process, std::chrono::seconds(30)));
  EXPECT_FALSE(fuse::mountAt(place));
  EXPECT_FALSE(fs::exists(place));
}

TEST_F(MountedImage, isClearedAwayByTheNextMountAfterItsServerDied) {
  volume.addFile(kRoot, "file", "text");
  ASSERT_TRUE(mounts());
  killServer();
  EXPECT_EQ(::access(place.c_str(), F_OK), -1);
  EXPECT_EQ(errno, ENOTCONN);
  const auto again = mount({.image = scratch.write("other.dmg", "another")});
  ASSERT_TRUE(again) << again.error().message;
  EXPECT_EQ(again->mountPoint, place);
  EXPECT_EQ(readFile(place + "/file"), "text");
}

TEST_F(MountedImage, isClearedAwayByUnmountingAfterItsServerDied) {
  ASSERT_TRUE(mounts());
  killServer();
  EXPECT_TRUE(unmount("/Volumes/STICK-Backup/"));
  EXPECT_FALSE(fs::exists(place));
}

TEST_F(MountedImage, isReadByManyThreadsAtOnce) {
  for (int i = 0; i < 200; ++i)
    volume.addFile(kRoot, std::to_string(i), std::string(20000, static_cast<char>(i)));
  ASSERT_TRUE(mounts());
  std::vector<std::thread> readers;
  std::atomic<int> wrong = 0;
  for (int reader = 0; reader < 4; ++reader)
    readers.emplace_back([&] {
      for (int i = 0; i < 200; ++i)
        if (readFile(place + "/" + std::to_string(i)) != std::string(20000, static_cast<char>(i))) ++wrong;
    });
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
