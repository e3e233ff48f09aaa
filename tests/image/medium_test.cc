#include "image/os/medium.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "tests/tools/scratch_folder.h"

namespace image::os {
namespace {

TEST(Medium, isAttachedWhileTheKernelListsItsDevice) {
  ScratchFolder scratch;
  scratch.write("8:17", "");
  EXPECT_TRUE(isMediumAttached(makedev(8, 17), scratch / ""));
}

TEST(Medium, isNotOnceTheKernelHasForgottenItsDevice) {
  ScratchFolder scratch;
  scratch.write("8:17", "");
  EXPECT_FALSE(isMediumAttached(makedev(8, 1), scratch / ""));
}

TEST(Medium, ofAFileSystemOnNoDeviceIsAlwaysAttached) {
  ScratchFolder scratch;
  EXPECT_TRUE(isMediumAttached(makedev(0, 42), scratch / ""));
}

TEST(Medium, isTakenForAttachedWhereDevicesAreNotListed) {
  ScratchFolder scratch;
  EXPECT_TRUE(isMediumAttached(makedev(8, 1), scratch / "nothing"));
}

TEST(Medium, ofTheFolderOfThisTestIsAttached) {
  ScratchFolder scratch;
  struct stat status {};
  ASSERT_EQ(::stat((scratch / "").c_str(), &status), 0);
  EXPECT_TRUE(isMediumAttached(status.st_dev));
}

}  // namespace
}  // namespace image::os
