#include <algorithm>
#include <array>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "platform/embedded/embedded_disks.h"
#include "platform/embedded/memory_keychain.h"
#include "platform/embedded/terminal_desktop.h"
#include "platform/embedded/volume_files.h"
#include "platform/posix/icu_dates.h"
#include "platform/posix/posix_archives.h"
#include "platform/posix/posix_files.h"
#include "tests/contract/desktop_contract.h"
#include "tests/contract/disk_arbitration_contract.h"
#include "tests/contract/files_contract.h"
#include "tests/contract/keychain_contract.h"
#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"

namespace contract {
namespace {

class InMainLoop {
 public:
  ports::MainQueue& mainQueue() { return loop; }
  bool runUntil(const std::function<bool()>& condition) {
    bool tooLong = false;
    loop.postAfter(30, [&] { tooLong = true; });
    loop.runUntil([&] { return tooLong || condition(); });
    return condition();
  }

 protected:
  // Runs what is posted, and what that posts.
  void settle() {
    for (int round = 0; round < 3; ++round) {
      bool ran = false;
      loop.post([&] { ran = true; });
      runUntil([&] { return ran; });
    }
  }

  platform::posix::MainLoop loop;
};

struct EmbeddedKeychain {
  ports::KeychainItems& keychain() { return keychain_; }

 private:
  platform::posix::IcuDates dates_;
  platform::embedded::MemoryKeychain keychain_{dates_};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Embedded, KeychainContract, EmbeddedKeychain);

// A folder that is mounted as the volume STICK.
struct EmbeddedFiles {
  EmbeddedFiles() { paths_.setVolume("STICK", temporary_.path()); }
  ports::Files& files() { return files_; }
  std::string folder() const { return "/Volumes/STICK"; }
  std::filesystem::path real(const std::string& path) const { return paths_.hostPath(path); }

 private:
  TemporaryFolder temporary_;
  TemporaryFolder home_;
  platform::posix::PathMap paths_{"/nonexistent/tools", "/nonexistent/volumes"};
  platform::posix::PosixFiles hostFiles_{paths_, home_ / "share"};
  platform::embedded::VolumeFiles files_{hostFiles_, [](std::string_view) { return false; }};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Embedded, FilesContract, EmbeddedFiles);

class EmbeddedDisks : public InMainLoop {
 public:
  EmbeddedDisks() {
    std::filesystem::create_directories(temporary_ / "volumes");
    EXPECT_TRUE(disks_.watchVolumesFolder(temporary_ / "volumes"));
  }
  ports::DiskArbitration& disks() { return disks_; }
  void plug(const std::string& name) {
    temporary_.write(name + "/file", "contents");
    std::filesystem::rename(temporary_ / name, temporary_ / ("volumes/" + name));
  }
  void pull(const std::string& name) {
    std::filesystem::rename(temporary_ / ("volumes/" + name), temporary_ / name);
  }

 private:
  TemporaryFolder temporary_;
  RecordingLog log_;
  platform::posix::PathMap paths_{"/nonexistent/tools", "/nonexistent/volumes"};
  platform::posix::PosixFiles files_{paths_};
  platform::posix::PosixArchives archives_{paths_, log_};
  platform::posix::IcuDates dates_;
  platform::embedded::EmbeddedDisks disks_{{loop, paths_, files_, archives_, dates_, log_}};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Embedded, DiskArbitrationContract, EmbeddedDisks);

// Pipes stand for the terminal: what is written into one is typed, what comes out of the other is the screen.
class EmbeddedDesktop : public InMainLoop {
 public:
  using Act = std::function<void()>;

  ports::Desktop& desktop() { return desktop_; }

  // The watch is served in modals, so the act happens once the alert waits.
  void answerNextAlert(int button, bool suppressed, Act whileOpen) {
    std::string keys = suppressed ? "4\n" : "";
    keys += std::to_string(button + 1) + "\n";
    atNextAlert([this, keys, whileOpen = std::move(whileOpen)] {
      if (whileOpen) whileOpen();
      atNextAlert([this, keys] { type(keys); });
    });
  }
  void pressTheNextPanelsButton(Act whileOpen) { answerNextAlert(0, false, std::move(whileOpen)); }
  void closeDesktopAtNextAlert() {
    atNextAlert([this] { loop.stop(); });
  }
  std::string panelText() {
    const std::string shown = screen();
    const auto begin = shown.find('\n', shown.find("Backup Failed")) + 1;
    return shown.substr(begin, shown.rfind("\n\n  1) OK") - begin);
  }

  std::vector<std::string> menuTitles() {
    std::vector<std::string> titles;
    for (const auto& line : menuLines()) {
      const auto begin = line.find_first_not_of("0123456789) ");
      titles.push_back(begin == line.npos ? "-" : line.substr(begin));
    }
    return titles;
  }
  // Numbers are for what can be chosen; a submenu is open, and its items follow.
  bool isEnabled(const std::string& title) { return numberOf(title) != 0 || title == "More"; }
  void choose(const std::string& title) {
    type(std::to_string(numberOf(title)) + "\n");
    runUntil([this] {
      int waiting = 0;
      return ::ioctl(input_.read.get(), FIONREAD, &waiting) == 0 && waiting == 0;
    });
    settle();
  }
  bool terminateRequested() const { return terminateRequested_; }

 private:
  struct Pipe {
    explicit Pipe(int flags) {
      std::array<int, 2> ends{};
      EXPECT_EQ(::pipe2(ends.data(), flags), 0);
      read = platform::posix::FileDescriptor(ends[0]);
      write = platform::posix::FileDescriptor(ends[1]);
    }
    platform::posix::FileDescriptor read;
    platform::posix::FileDescriptor write;
  };

  void type(const std::string& keys) const {
    ASSERT_EQ(::write(input_.write.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  void atNextAlert(Act act) {
    const char trigger = 'x';
    ASSERT_EQ(::write(trigger_.write.get(), &trigger, 1), 1);
    triggerWatch_ = loop.watch(
        trigger_.read.get(),
        [this, act = std::move(act)] {
          char seen = 0;
          ASSERT_EQ(::read(trigger_.read.get(), &seen, 1), 1);
          act();
        },
        platform::posix::MainLoop::InModals::served);
  }
  const std::string& screen() {
    std::array<char, 4096> buffer;
    for (ssize_t size; (size = ::read(output_.read.get(), buffer.data(), buffer.size())) > 0;) {
      screen_.append(buffer.data(), static_cast<std::size_t>(size));
    }
    return screen_;
  }
  // Of the menu that was shown last.
  std::vector<std::string> menuLines() {
    settle();
    const std::string shown = screen();
    const auto end = shown.rfind("Type a number");
    if (end == shown.npos) return {};
    const auto last = end == 0 ? shown.npos : shown.rfind("Type a number", end - 1);
    const auto begin = last == shown.npos ? 0 : shown.find('\n', last) + 1;
    std::vector<std::string> lines;
    for (std::size_t at = begin + 1; at < end;) {
      const auto lineEnd = shown.find('\n', at);
      lines.push_back(shown.substr(at, lineEnd - at));
      at = lineEnd + 1;
    }
    return lines;
  }
  std::size_t numberOf(const std::string& title) {
    for (const auto& line : menuLines()) {
      if (!line.ends_with(" " + title)) continue;
      const auto digit = line.find_first_of("123456789");
      return digit < 5 ? std::stoul(line.substr(digit)) : 0;
    }
    ADD_FAILURE() << "no item " << title;
    return 0;
  }

  Pipe input_{O_CLOEXEC};
  Pipe output_{O_CLOEXEC | O_NONBLOCK};
  Pipe trigger_{O_CLOEXEC};
  platform::posix::MainLoop::Watch triggerWatch_;
  std::string screen_;
  bool terminateRequested_ = false;
  RecordingLog log_;
  platform::embedded::TerminalDesktop desktop_{
      loop, log_, {.input = input_.read.get(), .output = output_.write.get(), .isInteractive = true}, [this] {
        terminateRequested_ = true;
      }};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Embedded, DesktopContract, EmbeddedDesktop);

}  // namespace
}  // namespace contract
