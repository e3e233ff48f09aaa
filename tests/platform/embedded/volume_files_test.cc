#include "platform/embedded/volume_files.h"

#include <gtest/gtest.h>

#include "platform/posix/posix_files.h"
#include "tests/platform/posix/temporary_folder.h"

namespace platform::embedded {
namespace {

TEST(VolumeFiles, leavesNothingFreeOnAPlainFolder) {
  const TemporaryFolder temporary;
  posix::PathMap paths{"/nonexistent/tools", "/nonexistent/volumes"};
  paths.setVolume("PLAIN", temporary.path());
  paths.setVolume("MOUNTED", temporary.path());
  posix::PosixFiles host(paths);
  VolumeFiles files(host, [](std::string_view path) { return path == "/Volumes/PLAIN"; });
  EXPECT_EQ(files.fileSystemFreeSize("/Volumes/PLAIN"), 0U);
  EXPECT_GT(files.fileSystemFreeSize("/Volumes/MOUNTED"), 0U);
}

}  // namespace
}  // namespace platform::embedded
