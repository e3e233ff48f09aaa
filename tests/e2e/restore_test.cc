#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <iostream>
#include <mutex>
#include <sys/mount.h>

#include "engine/stashwick.h"
#include "image/fuse/mount_table.h"
#include "image/fuse/unmount.h"
#include "platform/fake/world.h"
#include "platform/posix/path_map.h"
#include "platform/posix/posix_tool_runs.h"
#include "tests/e2e/agent_world.h"
#include "tests/platform/posix/recording_log.h"
#include "tests/support/own_mounts.h"

namespace {

namespace fs = std::filesystem;
namespace fuse = image::fuse;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

// The tools as they are, with something that happens just before one of them runs.
class WatchedToolRuns : public ports::ToolRuns {
 public:
  explicit WatchedToolRuns(ports::ToolRuns& tools) : tools_(tools) {}

  std::unique_ptr<ports::InputPipe> makePipe() override { return tools_.makePipe(); }
  std::string run(const ports::ToolRun& run) override {
    if (run.launchPath == watched) before();
    ran.push_back(run.launchPath + " " + run.arguments.front());
    texts.push_back(tools_.run(run));
    return texts.back();
  }

  std::string watched;
  std::function<void()> before;
  // Read them when the engine has ended.
  std::vector<std::string> ran;
  std::vector<std::string> texts;

 private:
  ports::ToolRuns& tools_;
};

class Listener : public ZQStashwickDelegate {
 public:
  void StashwickDidFail(ZQStashwick&, const base::DomainError&, ZQStashwickOperationType) override {
    tell("fail");
  }
  void StashwickDidFinish(ZQStashwick&, ZQStashwickOperationType) override { tell("finish"); }

  std::string outcome() {
    std::unique_lock lock(mutex_);
    told_.wait_for(lock, std::chrono::seconds(120), [this] { return !outcome_.empty(); });
    return outcome_;
  }

 private:
  void tell(const char* outcome) {
    const std::lock_guard lock(mutex_);
    outcome_ += outcome;
    told_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable told_;
  std::string outcome_;
};

// The engine restoring with the real tools. The volume is a folder.
class Restore : public AgentWorld {
 protected:
  Restore() {
    takeOwnMountsAsRoot();
    ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    fs::create_directories(stick);
    paths.setVolume("STICK", stick);
  }
  ~Restore() override {
    for (const auto& mount : fuse::mountTable()) {
      if (!mount.mountPoint.starts_with(temporary.path())) continue;
      if (mount.server) ::kill(mount.server->process, SIGKILL);
      EXPECT_TRUE(fuse::detach(mount.mountPoint, fuse::Detach::atOnce));
    }
    ::unsetenv("XDG_DATA_HOME");
  }
  void TearDown() override {
    for (const auto& text : tools.texts)
      if (HasFailure()) std::cout << "a tool said: " << text << "\n";
  }

  std::string makeImage(const std::string& name, const std::string& folder, const std::string& options = "",
                        const std::string& input = "/dev/null") {
    const std::string image = temporary / name;
    const auto made = shell(hdiutil + " create -volname STICK-Backup " + options + " -srcfolder '" + folder +
                            "' '" + image + "' < " + input);
    EXPECT_EQ(made.status, 0) << made.errors;
    return image;
  }

  // "fail" or "finish".
  std::string restore(const std::string& image, const char* password = nullptr) {
    platform::fake::World world;
    ports::Host host{world.disks, world.keychain, world.desktop,      tools,        world.mainQueue,
                     world.files, world.archives, world.defaults,     world.bundle, world.dates,
                     world.user,  world.log,      world.notifications};
    const auto listener = std::make_shared<Listener>();
    ZQStashwick engine(host);
    engine.setDelegate(listener);
    engine.restoreWithBackupInstance(
        ZQStashwickInstance::_initWithName("STICK", image, {}, 0, password != nullptr, nullptr),
        password ? std::make_shared<const base::Secret>(password) : nullptr);
    const auto outcome = listener->outcome();
    authenticationFailed = engine.hasAuthenticationFailure();
    world.closeMainQueue();
    return outcome;
  }

  void expectSame(const std::string& folder, const std::string& expected) {
    const auto compared = shell("rsync -rlptgoDHni --delete --checksum '" + expected + "/' '" + folder + "'");
    EXPECT_EQ(compared.output, "");
    EXPECT_EQ(compared.status, 0) << compared.errors;
  }
  std::string copyOf(const std::string& folder) {
    EXPECT_EQ(shell("cp -a '" + folder + "' '" + folder + " before'").status, 0);
    return folder + " before";
  }
  std::string stickWithFiles() {
    makeStick("STICK");
    return stick;
  }
  void expectNothingMounted() {
    EXPECT_FALSE(fuse::mountAt(mountPoint));
    EXPECT_FALSE(fs::exists(mountPoint));
  }

  const std::string stick = temporary / "STICK";
  const std::string toolsFolder = fs::path(AGENT_PROGRAM).parent_path().parent_path() / "libexec/stashwick";
  const std::string hdiutil = "'" + toolsFolder + "/hdiutil'";
  const std::string volumes = dataHome + "/stashwick/Volumes";
  const std::string mountPoint = volumes + "/STICK-Backup";
  RecordingLog log;
  platform::posix::PathMap paths{toolsFolder, volumes};
  platform::posix::PosixToolRuns realTools{paths, log};
  WatchedToolRuns tools{realTools};
  bool authenticationFailed = false;
};

TEST_F(Restore, bringsBackExactlyWhatTheImageHolds) {
  stickWithFiles();
  temporary.write("STICK/\xFF\xFE not UTF-8", "1");
  temporary.write("STICK/back\\slash \"quoted\" 'twice' $HOME *", "2");
  temporary.write("STICK/line\nbreak", "3");
  temporary.write("STICK/-rf", "4");
  temporary.write("STICK/read only/file", "5");
  temporary.write("STICK/nothing", "");
  fs::create_symlink("/nowhere/at all", stick + "/dangling");
  fs::permissions(stick + "/read only/file", fs::perms::owner_read);
  fs::permissions(stick + "/read only", fs::perms::owner_read | fs::perms::owner_exec);
  const auto before = copyOf(stick);
  const auto image = makeImage("STICK.dmg", stick);
  temporary.write("STICK/notes.txt", "changed since");
  temporary.write("STICK/new/file", "made since");
  fs::remove_all(stick + "/empty");
  EXPECT_EQ(restore(image), "finish");
  expectSame(stick, before);
  EXPECT_THAT(tools.ran, ElementsAre("/usr/bin/hdiutil mount", "/bin/rm -rf", "/usr/bin/rsync -av",
                                     "/usr/bin/hdiutil unmount"));
  expectNothingMounted();
}

TEST_F(Restore, emptiesTheVolumeOfAnEmptyBackup) {
  const auto image = makeImage("STICK.dmg", stick);
  temporary.write("STICK/file", "made since");
  EXPECT_EQ(restore(image), "finish");
  EXPECT_TRUE(fs::is_empty(stick));
}

TEST_F(Restore, fillsAVolumeThatIsEmpty) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick);
  fs::remove_all(stick);
  fs::create_directory(stick);
  EXPECT_EQ(restore(image), "finish");
  expectSame(stick, before);
}

TEST_F(Restore, keepsAMountPointAndErasesWhatIsInIt) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick);
  ASSERT_NO_FATAL_FAILURE(takeOwnMounts());
  ASSERT_EQ(::mount("none", stick.c_str(), "tmpfs", 0, nullptr), 0);
  temporary.write("STICK/other", "made since");
  EXPECT_EQ(restore(image), "finish");
  EXPECT_TRUE(fuse::mountAt(stick));
  expectSame(stick, before);
}

TEST_F(Restore, takesTheBackupThatIsAskedFor) {
  stickWithFiles();
  const auto before = copyOf(stick);
  const auto older = makeImage("older.dmg", stick);
  temporary.write("STICK/notes.txt", "changed since");
  makeImage("newer.dmg", stick);
  EXPECT_EQ(restore(older), "finish");
  expectSame(stick, before);
}

TEST_F(Restore, opensAnEncryptedBackupWithItsPassword) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick, "-encryption AES-256 -stdinpass",
                               temporary.write("password", std::string("pass word\0\n", 11)));
  fs::remove(stick + "/notes.txt");
  EXPECT_EQ(restore(image, "pass word"), "finish");
  expectSame(stick, before);
}

TEST_F(Restore, stopsBeforeErasingWhenThePasswordIsWrongOrMissing) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick, "-encryption AES-256 -stdinpass",
                               temporary.write("password", std::string("pass word\0\n", 11)));
  for (const char* password : {"Pass word", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(restore(image, password), "fail");
    EXPECT_TRUE(authenticationFailed);
    EXPECT_EQ(tools.texts.back(), "hdiutil: mount failed - Authentication error\n");
  }
  expectSame(stick, before);
  expectNothingMounted();
}

TEST_F(Restore, stopsBeforeErasingWhenAnyPartOfTheImageIsDamaged) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick);
  const auto size = fs::file_size(image);
  for (const std::uintmax_t place : {size / 4, size / 2, size - 512}) {
    const std::string damaged = temporary / "damaged.dmg";
    fs::copy_file(image, damaged, fs::copy_options::overwrite_existing);
    std::fstream file(damaged, std::ios::binary | std::ios::in | std::ios::out);
    file.seekg(static_cast<std::streamoff>(place));
    const auto byte = static_cast<char>(file.get() ^ 0x55);
    file.seekp(static_cast<std::streamoff>(place));
    file.put(byte);
    file.close();
    EXPECT_EQ(restore(damaged), "fail") << place;
    EXPECT_THAT(tools.texts.back(), HasSubstr("hdiutil: mount failed - "));
  }
  expectSame(stick, before);
  expectNothingMounted();
}

TEST_F(Restore, stopsBeforeErasingWhenTheImageIsGoneOrNoImage) {
  const auto before = copyOf(stickWithFiles());
  EXPECT_EQ(restore(temporary / "gone.dmg"), "fail");
  EXPECT_EQ(restore(temporary / "<string>gone</string>.dmg"), "fail");
  EXPECT_EQ(restore(temporary.write("text.dmg", "no image")), "fail");
  EXPECT_EQ(restore(temporary.write("empty.dmg", "")), "fail");
  expectSame(stick, before);
}

TEST_F(Restore, stopsBeforeErasingWhenAnotherImageHasTheName) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick);
  const auto other = makeImage("other.dmg", stick);
  ASSERT_EQ(shell(hdiutil + " mount " + other).status, 0);
  EXPECT_EQ(restore(image), "fail");
  EXPECT_THAT(tools.texts.back(), HasSubstr("taken by another image"));
  expectSame(stick, before);
}

TEST_F(Restore, usesTheImageThatIsMountedAlready) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick);
  ASSERT_EQ(shell(hdiutil + " attach " + image).status, 0);
  fs::remove(stick + "/notes.txt");
  EXPECT_EQ(restore(image), "finish");
  expectSame(stick, before);
  expectNothingMounted();
}

TEST_F(Restore, stopsBeforeErasingWhenAVolumeHasTheName) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick);
  temporary.write("home/data/stashwick/Volumes/STICK-Backup/file", "somebody's");
  EXPECT_EQ(restore(image), "fail");
  expectSame(stick, before);
}

TEST_F(Restore, tellsThatTheVolumeIsTooSmall) {
  temporary.write("STICK/large", std::string(1 << 20, 'x'));
  const auto image = makeImage("STICK.dmg", stick);
  ASSERT_NO_FATAL_FAILURE(takeOwnMounts());
  ASSERT_EQ(::mount("none", stick.c_str(), "tmpfs", 0, "size=65536"), 0);
  EXPECT_EQ(restore(image), "fail");
  EXPECT_THAT(tools.texts.back(), AllOf(HasSubstr("failed"), HasSubstr("No space left on device")));
}

TEST_F(Restore, makesAFolderOfTheNameWhenTheVolumeIsNotThere) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick);
  paths.removeVolume("STICK");
  EXPECT_EQ(restore(image), "finish");
  expectSame(volumes + "/STICK", before);
}

TEST_F(Restore, tellsThatTheServerOfTheImageDiedAndTheNextOneStartsAfresh) {
  const auto before = copyOf(stickWithFiles());
  const auto image = makeImage("STICK.dmg", stick);
  tools.watched = "/usr/bin/rsync";
  tools.before = [this] {
    const auto server = *fuse::mountAt(mountPoint)->server;
    ::kill(server.process, SIGKILL);
    fuse::waitForEnd(server.process, std::chrono::seconds(30));
  };
  EXPECT_EQ(restore(image), "fail");
  EXPECT_THAT(tools.texts.back(), AllOf(HasSubstr("rsync"), HasSubstr("failed")));
  tools.watched.clear();
  fs::create_directories(stick);
  EXPECT_EQ(restore(image), "finish");
  expectSame(stick, before);
  expectNothingMounted();
}

}  // namespace
