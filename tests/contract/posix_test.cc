#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/posix/dictionary_file.h"
#include "platform/posix/directory_bundle.h"
#include "platform/posix/file_user_defaults.h"
#include "platform/posix/icu_dates.h"
#include "platform/posix/main_loop.h"
#include "platform/posix/path_map.h"
#include "platform/posix/posix_archives.h"
#include "platform/posix/posix_files.h"
#include "platform/posix/posix_tool_runs.h"
#include "platform/posix/posix_user_session.h"
#include "tests/contract/archives_contract.h"
#include "tests/contract/bundle_contract.h"
#include "tests/contract/dates_contract.h"
#include "tests/contract/files_contract.h"
#include "tests/contract/main_queue_contract.h"
#include "tests/contract/tool_runs_contract.h"
#include "tests/contract/user_defaults_contract.h"
#include "tests/contract/user_session_contract.h"
#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"

namespace contract {
namespace {

struct PosixMainQueue {
  ports::MainQueue& queue() { return loop; }
  bool runUntil(const std::function<bool()>& condition) {
    bool tooLong = false;
    loop.postAfter(30, [&] { tooLong = true; });
    loop.runUntil([&] { return tooLong || condition(); });
    return condition();
  }
  void end() { loop.close(); }

  platform::posix::MainLoop loop;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Posix, MainQueueContract, PosixMainQueue);

// A folder that is mounted as the volume STICK.
struct PosixVolume {
  PosixVolume() { paths.setVolume("STICK", temporary.path()); }
  std::string folder() const { return "/Volumes/STICK"; }
  std::filesystem::path real(const std::string& path) const { return paths.hostPath(path); }

  TemporaryFolder temporary;
  platform::posix::PathMap paths{"/nonexistent/tools", "/nonexistent/volumes"};
  RecordingLog log;
};

struct PosixFiles : PosixVolume {
  ports::Files& files() { return files_; }

 private:
  TemporaryFolder home_;
  platform::posix::PosixFiles files_{paths, home_ / "share"};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Posix, FilesContract, PosixFiles);

struct PosixArchives : PosixVolume {
  ports::Archives& archives() { return archives_; }
  std::vector<std::string> logged() { return log.lines(); }

 private:
  platform::posix::PosixArchives archives_{paths, log};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Posix, ArchivesContract, PosixArchives);

struct PosixToolRuns : PosixVolume {
  ports::ToolRuns& tools() { return tools_; }

 private:
  platform::posix::PosixToolRuns tools_{paths, log};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Posix, ToolRunsContract, PosixToolRuns);

class FileUserDefaults {
 public:
  FileUserDefaults() { restart(); }
  ports::UserDefaults& defaults() { return *defaults_; }
  void set(base::PropertyList value, std::string_view key) {
    const auto file = temporary_ / "settings.plist";
    auto settings =
        platform::posix::readDictionaryFile(file, log_).value_or(base::PropertyList::Dictionary());
    settings.insert_or_assign(std::string(key), std::move(value));
    ASSERT_TRUE(platform::posix::writeDictionaryFile(settings, file, log_));
  }
  void restart() {
    defaults_ = std::make_unique<platform::posix::FileUserDefaults>(log_, temporary_ / "settings.plist");
  }

 private:
  TemporaryFolder temporary_;
  RecordingLog log_;
  std::unique_ptr<platform::posix::FileUserDefaults> defaults_;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Posix, UserDefaultsContract, FileUserDefaults);

class DirectoryBundle {
 public:
  void add(const char* name, const char* type, const char* contents) {
    temporary_.write(std::string(name) + "." + type, contents);
  }
  void translate(const char* key, const char* text) {
    temporary_.write("de.lproj/Localizable.strings", "");
    std::filesystem::remove(temporary_ / "de.lproj/Localizable.strings");
    ASSERT_TRUE(platform::posix::writeDictionaryFile({{key, text}},
                                                     temporary_ / "de.lproj/Localizable.strings", log_));
  }
  ports::Bundle& bundle() { return bundle_; }
  std::string contentsOf(const std::string& path) { return readRealFile(path); }

 private:
  TemporaryFolder temporary_;
  RecordingLog log_;
  platform::posix::DirectoryBundle bundle_{temporary_.path(), {"de-DE"}, log_};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Posix, BundleContract, DirectoryBundle);

struct IcuDates {
  ports::Dates& dates() { return dates_; }

 private:
  platform::posix::IcuDates dates_{{{"en-US"}, "en-US"}, "Europe/Berlin"};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Posix, DatesContract, IcuDates);

class PosixUserSession {
 public:
  ~PosixUserSession() { quit(nullptr); }
  ports::UserSession& user() { return hidden_ ? withoutProcesses_ : session_; }
  // A process that sleeps under that name until it is killed; the pipe ends once it bears the name.
  void launch(const char* name) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    process_ = ::fork();
    if (process_ == 0) {
      ::prctl(PR_SET_NAME, name);
      ::close(ends[0]);
      ::close(ends[1]);
      for (;;) ::pause();
    }
    ::close(ends[1]);
    char none = 0;
    EXPECT_EQ(::read(ends[0], &none, 1), 0);
    ::close(ends[0]);
  }
  void quit(const char*) {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    process_ = 0;
  }
  void hideProcesses() { hidden_ = true; }

 private:
  pid_t process_ = 0;
  bool hidden_ = false;
  platform::posix::PosixUserSession session_;
  platform::posix::PosixUserSession withoutProcesses_{"/nonexistent/proc"};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Posix, UserSessionContract, PosixUserSession);

}  // namespace
}  // namespace contract
