#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

#include "tests/tools/faults/faulty_run.h"

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::string textOf(const Fault& fault) {
  return fault.call +
         (fault.place ? " of byte " + std::to_string(*fault.place) : " " + std::to_string(fault.at)) + " " +
         fault.kind + (fault.lasts ? " for ever" : "");
}

class Faults : public testing::TestWithParam<Naming> {
 protected:
  // Every call that a run makes, each time that it makes it.
  template <class Try>
  void forEachCall(const std::set<std::string>& names, Try attempt) {
    for (const Fault& call : runs.everyCall())
      for (Fault fault{.call = call.call}; names.contains(call.call) && fault.at <= call.at; ++fault.at)
        attempt(fault);
  }

  void expectWhole(const Fault& fault, const ProgramResult& run) {
    EXPECT_EQ(run.status, 0) << textOf(fault) << ": " << run.output;
    EXPECT_THAT(runs.names(), ElementsAre("out.dmg")) << textOf(fault);
    EXPECT_EQ(runs.faultOfImage(), "") << textOf(fault);
    runs.removeImage();
  }

  void expectRefused(const Fault& fault, const ProgramResult& run) {
    EXPECT_EQ(run.status, 1) << textOf(fault);
    const auto reason = AnyOf(EndsWith(std::string(": ") + std::strerror(std::stoi(fault.kind)) + "\n"),
                              AllOf(HasSubstr("verifying "), EndsWith("cannot be read\n")));
    EXPECT_THAT(run.output, AllOf(StartsWith("hdiutil: create failed - "),
                                  AnyOf(HasSubstr(runs.source()), HasSubstr(runs.image())), reason))
        << textOf(fault);
    EXPECT_EQ(std::ranges::count(run.output, '\n'), 1) << textOf(fault) << ": " << run.output;
    EXPECT_THAT(runs.names(), IsEmpty()) << textOf(fault);
    runs.removeImage();
  }

  bool hasStruck(long place) const {
    return std::ranges::any_of(runs.reads(), [=](const ImageRead& r) { return r.isStruck && r.has(place); });
  }
  // Nothing counts as read again but all that the failing call was to read.
  bool wasReadAfterAll() const {
    const auto reads = runs.reads();
    const auto struck = std::ranges::find(reads, true, &ImageRead::isStruck);
    return std::ranges::any_of(reads, [&](const ImageRead& r) {
      return !r.isStruck && r.offset <= struck->offset && r.offset + r.size >= struck->offset + struck->size;
    });
  }

  FaultyRuns runs{GetParam()};
};

TEST_P(Faults, inWhatReadsOrWritesDataAreNeverPassedOver) {
  int code = ENODEV;
  forEachCall({"read", "write", "pwrite", "fsync", "linkat", "renameat2", "ftruncate"}, [&](Fault fault) {
    for (const bool lasts : {false, true}) {
      code = code == ENODEV ? ENOSPC : code == ENOSPC ? EIO : ENODEV;
      fault.kind = std::to_string(code);
      fault.lasts = lasts;
      expectRefused(fault, runs.create(fault));
    }
  });
}

// Which call reads which part of the image changes from run to run, but not what is read: each part in turn
// lies on a bad place of the medium, first for ever.
TEST_P(Faults, inReadingTheImageAreNeverPassedOver) {
  ASSERT_EQ(runs.create().status, 0);
  runs.removeImage();
  std::set<long> places;
  for (const ImageRead& read : runs.reads()) places.insert(read.offset);
  ASSERT_GE(places.size(), 3u);
  for (const long place : places) {
    Fault fault{.call = "pread", .kind = std::to_string(EIO), .lasts = true, .place = place};
    expectRefused(fault, runs.create(fault));
    EXPECT_TRUE(hasStruck(place)) << textOf(fault);
    fault.lasts = false;
    const auto run = runs.create(fault);
    EXPECT_TRUE(hasStruck(place)) << textOf(fault);
    // What was read ahead may be tried again when it is wanted.
    if (run.status == 0 && wasReadAfterAll())
      expectWhole(fault, run);
    else
      expectRefused(fault, run);
  }
}

TEST_P(Faults, inWhatLooksAtFilesFailTheImageOrDoItNoHarm) {
  forEachCall({"open", "openat", "statx", "readlinkat", "fallocate", "unlinkat", "llistxattr", "lgetxattr"},
              [this](Fault fault) {
                for (const bool lasts : {false, true}) {
                  fault.kind = std::to_string(EIO);
                  fault.lasts = lasts;
                  const auto run = runs.create(fault);
                  if (run.status == 0)
                    expectWhole(fault, run);
                  else
                    expectRefused(fault, run);
                }
              });
}

TEST_P(Faults, thatAreNoneDoNoHarm) {
  forEachCall({"read", "pread", "write", "pwrite"}, [this](Fault fault) {
    fault.kind = std::to_string(EINTR);
    expectWhole(fault, runs.create(fault));
    fault.kind = "short";
    expectWhole(fault, runs.create(fault));
    fault.lasts = true;
    expectWhole(fault, runs.create(fault));
  });
}

// A folder that shows the source once more, and does not say that it is mounted.
class FolderInItself : public testing::Test {
 protected:
  FolderInItself() {
    scratch.write("source/folder/file", "content");
    std::filesystem::create_directory(loop);
  }
  ProgramResult create(const std::string& options = "") const {
    return runShell("exec unshare -rm sh -c " +
                    shellWord("mount --bind " + shellWord(source) + " " + shellWord(loop) +
                              " && FAULT_NO_MOUNT_ROOT=1 LD_PRELOAD=" + failingCalls(scratch) + " exec " +
                              shellWord(HDIUTIL_PROGRAM) + " create -volname V -srcfolder " +
                              shellWord(source) + " " + shellWord(scratch / "out.dmg") + options));
  }

  ScratchFolder scratch;
  std::string source = scratch / "source";
  std::string loop = scratch / "source/folder/loop";
  std::string reason =
      "cannot store " + loop + ": the folder is the same as " + source + ", which it lies in\n";
};

TEST_F(FolderInItself, isAnError) {
  const auto run = create();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output, "hdiutil: create failed - " + reason);
}

TEST_F(FolderInItself, isLeftOutWhenAskedTo) {
  const auto run = create(" -skipunreadable");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output, StartsWith("hdiutil: left out: " + reason));
  EXPECT_EQ(runShell("7zz x -so " + shellWord(scratch / "out.dmg") + " V/folder/file 2>/dev/null").output,
            "content");
}

INSTANTIATE_TEST_SUITE_P(Namings, Faults, testing::Values(Naming::nameless, Naming::hidden));

}  // namespace
