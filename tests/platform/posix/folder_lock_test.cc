#include "platform/posix/folder_lock.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "platform/posix/durable_file.h"
#include "tests/platform/posix/temporary_folder.h"

namespace platform::posix {
namespace {

using testing::HasSubstr;

TEST(FolderLock, isHeldByOneAtATime) {
  const TemporaryFolder temporary;
  {
    const auto first = FolderLock::tryLock(temporary.path());
    ASSERT_TRUE(first);
    EXPECT_TRUE(*first);
    const auto second = FolderLock::tryLock(temporary.path());
    ASSERT_TRUE(second);
    EXPECT_FALSE(*second);
  }
  const auto third = FolderLock::tryLock(temporary.path());
  ASSERT_TRUE(third);
  EXPECT_TRUE(*third);
}

TEST(FolderLock, saysWhatIsInTheWay) {
  const TemporaryFolder temporary;
  temporary.write("file", "");
  EXPECT_THAT(FolderLock::tryLock(temporary / "gone").error().message,
              HasSubstr("No such file or directory"));
  EXPECT_THAT(FolderLock::tryLock(temporary / "file").error().message, HasSubstr("Not a directory"));
}

TEST(FolderLock, tellsItsHolderWhereTheKernelDoes) {
  const TemporaryFolder temporary;
  EXPECT_EQ(folderLockHolder(temporary.path()), "");
  EXPECT_EQ(folderLockHolder(temporary / "gone"), "");
  const auto lock = FolderLock::tryLock(temporary.path());
  ASSERT_TRUE(lock);
  const auto holder = folderLockHolder(temporary.path());
  // Some sandboxes keep the list of locks to themselves.
  EXPECT_THAT(holder, testing::AnyOf("", HasSubstr("(process " + std::to_string(::getpid()) + ")")));
}

TEST(RemoveFile, removesAFileAndNothingElse) {
  const TemporaryFolder temporary;
  temporary.write("file", "");
  temporary.write("folder/file", "");
  EXPECT_TRUE(removeFile(temporary / "file"));
  EXPECT_TRUE(removeFile(temporary / "file"));
  EXPECT_FALSE(removeFile(temporary / "folder"));
  EXPECT_FALSE(openFile(temporary / "folder/file").value() == nullptr);
}

}  // namespace
}  // namespace platform::posix
