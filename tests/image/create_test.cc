#include "image/create.h"

#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/tools/scratch_folder.h"

namespace image {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

// A source that something happens to once it has been scanned: the tool says that it is writing just then.
class CreateFromARestlessSource : public testing::Test {
 protected:
  CreateFromARestlessSource() {
    scratch.write("source/log", "first");
    scratch.write("source/other", std::string(100'000, 'o'));
  }

  base::Result<CreateReport> create(const std::function<void(int)>& onWriting) {
    int written = 0;
    return createImage({.source = scratch / "source",
                        .volumeName = "V",
                        .image = scratch / "v.dmg",
                        .phase = [&](std::string_view text) {
                          if (text.starts_with("writing")) onWriting(written++);
                        }});
  }
  void append(const std::string& text) const {
    std::ofstream(scratch / "source/log", std::ios::app | std::ios::binary) << text;
  }
  std::string contentOf(const std::string& name) const {
    return runShell("7zz x -so " + shellWord(scratch / "v.dmg") + " V/" + name + " 2>/dev/null").output;
  }

  ScratchFolder scratch;
};

TEST_F(CreateFromARestlessSource, readsAFileThatGrewOnceMore) {
  const auto report = create([&](int time) {
    if (time == 0) append(" second");
  });
  ASSERT_TRUE(report) << report.error().message;
  EXPECT_EQ(contentOf("log"), "first second");
  EXPECT_EQ(contentOf("other"), std::string(100'000, 'o'));
}

TEST_F(CreateFromARestlessSource, readsAFileThatWasRewrittenInPlaceOnceMore) {
  const auto report = create([&](int time) {
    if (time != 0) return;
    scratch.write("source/log", "FIRST");
    const timespec times[2]{{.tv_sec = 1, .tv_nsec = 0}, {.tv_sec = 2, .tv_nsec = 0}};
    ::utimensat(AT_FDCWD, (scratch / "source/log").c_str(), times, 0);
  });
  ASSERT_TRUE(report) << report.error().message;
  EXPECT_EQ(contentOf("log"), "FIRST");
}

TEST_F(CreateFromARestlessSource, failsForAFileThatNeverRests) {
  const auto report = create([&](int) { append("more"); });
  ASSERT_FALSE(report);
  EXPECT_THAT(report.error().message, AllOf(HasSubstr(scratch / "source/log"), HasSubstr("changed")));
  EXPECT_FALSE(fs::exists(scratch / "v.dmg"));
}

TEST_F(CreateFromARestlessSource, failsForAFileThatVanished) {
  const auto report = create([&](int) { fs::remove(scratch / "source/log"); });
  ASSERT_FALSE(report);
  EXPECT_EQ(report.error().message,
            "cannot read " + (scratch / "source/log") + ": No such file or directory");
}

TEST_F(CreateFromARestlessSource, neverFollowsAFileThatBecameALink) {
  scratch.write("secret", "other people's");
  const auto report = create([&](int) {
    fs::remove(scratch / "source/log");
    fs::create_symlink(scratch / "secret", scratch / "source/log");
  });
  ASSERT_FALSE(report);
  EXPECT_THAT(report.error().message, HasSubstr(scratch / "source/log"));
}

TEST_F(CreateFromARestlessSource, doesNotWaitForAFileThatBecameAPipe) {
  const auto report = create([&](int) {
    fs::remove(scratch / "source/log");
    ASSERT_EQ(::mkfifo((scratch / "source/log").c_str(), 0600), 0);
  });
  EXPECT_TRUE(report) << "the second reading finds a pipe and keeps it";
}

TEST_F(CreateFromARestlessSource, leavesOutWhatBecomesUnreadableWhenAskedTo) {
  int time = 0;
  const auto report = createImage({.source = scratch / "source",
                                   .volumeName = "V",
                                   .image = scratch / "v.dmg",
                                   .skipsUnreadable = true,
                                   .phase = [&](std::string_view text) {
                                     if (text.starts_with("writing") && time++ == 0)
                                       fs::remove(scratch / "source/log");
                                   }});
  ASSERT_TRUE(report) << report.error().message;
  EXPECT_THAT(report->leftOut, testing::ElementsAre(HasSubstr("source/log: No such file")));
  EXPECT_EQ(report->files, 1u);
  EXPECT_EQ(contentOf("other"), std::string(100'000, 'o'));
}

}  // namespace
}  // namespace image
