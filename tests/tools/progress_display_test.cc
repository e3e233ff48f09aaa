#include "tools/progress_display.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

#include "tests/tools/hdiutil_run.h"
#include "tests/tools/scratch_folder.h"

namespace tools {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;

TEST(PercentLine, isForPrograms) {
  EXPECT_EQ(percentLine({.sectorsDone = 1, .sectorsTotal = 8}), "PERCENT:12.500000");
  EXPECT_EQ(percentLine({}), "PERCENT:0.000000");
}

TEST(BarText, saysHowMuchHowFastAndHowLong) {
  const auto text = barText({.sectorsDone = 2'000'000, .sectorsTotal = 8'000'000, .elapsed = 10s});
  EXPECT_EQ(text, " 25%  [#######                       ]  1.0 GB  102 MB/s  0:30 left");
}

TEST(BarText, promisesNothingBeforeTheBeginning) {
  EXPECT_EQ(barText({.sectorsTotal = 8}), "  0%  [                              ]  0.0 KB  0.0 KB/s");
}

TEST(ProgressDisplay, showsTheEnd) {
  image::udif::Progress progress;
  progress.sectorsTotal = 10;
  std::ostringstream out;
  {
    const ProgressDisplay display(progress, ProgressDisplay::Style::percentLines, out);
    progress.sectorsDone = 10;
  }
  EXPECT_THAT(out.str(), testing::EndsWith("PERCENT:100.000000\n"));
}

TEST(HdiutilProgress, goesToStandardOutputUnlessAPropertyListDoes) {
  const ScratchFolder scratch;
  scratch.write("source/file", "content");
  const auto lines =
      runHdiutil({"create", "-srcfolder", scratch / "source", "-puppetstrings", scratch / "a.dmg"});
  EXPECT_THAT(lines.out, AllOf(HasSubstr("PERCENT:100.000000\n"), HasSubstr("created: ")));
  const auto list =
      runHdiutil({"create", "-srcfolder", scratch / "source", "-puppetstrings", "-plist", scratch / "b.dmg"});
  EXPECT_THAT(list.out, testing::StartsWith("<?xml"));
  EXPECT_THAT(list.error, HasSubstr("PERCENT:100.000000\n"));
}

}  // namespace
}  // namespace tools
