// Size texts, and the sizes of files and folders.

#include "store/file_size.h"

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <unistd.h>

#include "platform/fake/world.h"

namespace {

class FileSizeText : public ::testing::Test {
 protected:
  static std::string text(std::uint64_t bytes) { return FileSize::stringFromFileSize(bytes); }
};

class FileSizeOnDisk : public ::testing::Test {
 protected:
  std::uint64_t entrySize(const std::string& path) {
    return std::filesystem::exists(world.files.realPath(path)) ? world.files.fileSize(path).value() : 0;
  }

  platform::fake::World world;
  FileSize sizes{world.files};
};

// German habits, "1.023,5", as long as this lives.
class GermanLocale {
 public:
  GermanLocale() : folder_(std::filesystem::temp_directory_path() / ("locales-" + std::to_string(getpid()))) {
    std::filesystem::create_directories(folder_);
    const std::string command =
        "localedef --no-archive -i de_DE -f UTF-8 '" + (folder_ / "de_DE.UTF-8").string() + "'";
    made_ = std::system(command.c_str()) == 0 && setenv("LOCPATH", folder_.c_str(), 1) == 0;
    made_ = made_ && setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
  }
  ~GermanLocale() {
    setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  GermanLocale(const GermanLocale&) = delete;
  GermanLocale& operator=(const GermanLocale&) = delete;

  bool made() const { return made_; }

 private:
  std::filesystem::path folder_;
  bool made_ = false;
};

TEST_F(FileSizeText, countsBytesUpTo1022) {
  EXPECT_EQ(text(0), "0 bytes");
  EXPECT_EQ(text(1), "1 bytes");
  EXPECT_EQ(text(1022), "1022 bytes");
}

TEST_F(FileSizeText, switchesToKilobytesAt1023) {
  EXPECT_EQ(text(1023), "1.0 KB");
  EXPECT_EQ(text(1024), "1.0 KB");
  EXPECT_EQ(text(1536), "1.5 KB");
}

TEST_F(FileSizeText, switchesToMegabytesAt1023Kilobytes) {
  EXPECT_EQ(text(1'047'551), "1023.0 KB");
  EXPECT_EQ(text(1'047'552), "1.00 MB");
}

TEST_F(FileSizeText, switchesToGigabytesAt1023Megabytes) {
  EXPECT_EQ(text(1'072'693'247), "1023.00 MB");
  EXPECT_EQ(text(1'072'693'248), "1.00 GB");
}

TEST_F(FileSizeText, hasNoUnitAboveGigabytes) {
  EXPECT_EQ(text(std::uint64_t{5} << 40), "5120.00 GB");
  EXPECT_EQ(text(std::uint64_t{1} << 50), "1048576.00 GB");
}

TEST_F(FileSizeText, takesTheCountAsUnsigned) {
  EXPECT_EQ(text(std::uint64_t{1} << 63), "8589934592.00 GB");
  EXPECT_EQ(text(std::numeric_limits<std::uint64_t>::max()), "17179869184.00 GB");
}

TEST_F(FileSizeText, hasOneDecimalForKilobytesAndTwoForTheRest) {
  EXPECT_EQ(text(10'300), "10.1 KB");
  EXPECT_EQ(text(10'300'000), "9.82 MB");
  EXPECT_EQ(text(10'300'000'000), "9.59 GB");
}

TEST_F(FileSizeText, hasAFullStopAndNoThousandsSeparatorsInALocaleWithCommas) {
  const GermanLocale german;
  ASSERT_TRUE(german.made());
  ASSERT_STREQ(localeconv()->decimal_point, ",");
  EXPECT_EQ(text(1022), "1022 bytes");
  EXPECT_EQ(text(1536), "1.5 KB");
  EXPECT_EQ(text(1'572'864), "1.50 MB");
  EXPECT_EQ(text(std::uint64_t{5} << 40), "5120.00 GB");
}

TEST_F(FileSizeOnDisk, fileIsAsLongAsItsContents) {
  world.files.write("/folder/a", "ten bytes.");
  world.files.write("/folder/empty", "");
  EXPECT_EQ(sizes.sizeOfFile("/folder/a"), 10);
  EXPECT_EQ(sizes.sizeOfFile("/folder/empty"), 0);
}

TEST_F(FileSizeOnDisk, symbolicLinkIsMeasuredItselfAndNotItsTarget) {
  world.files.write("/folder/a", std::string(5000, 'x'));
  std::filesystem::create_symlink("a", world.files.realPath("/folder/link"));
  std::filesystem::create_symlink("nowhere", world.files.realPath("/folder/dangling"));
  EXPECT_EQ(sizes.sizeOfFile("/folder/link"), 1);
  EXPECT_EQ(sizes.sizeOfFile("/folder/dangling"), 7);
}

TEST_F(FileSizeOnDisk, missingPathIsZero) {
  EXPECT_EQ(sizes.sizeOfFile("/missing"), 0);
  EXPECT_EQ(sizes.sizeOfFolder("/missing"), 0);
}

TEST_F(FileSizeOnDisk, folderIsItsFilesAndTheEntriesOfItsSubFolders) {
  world.files.write("/folder/a", "ten bytes.");
  world.files.createDirectory("/folder/sub");
  EXPECT_EQ(sizes.sizeOfFolder("/folder"), 10 + entrySize("/folder/sub"));
}

TEST_F(FileSizeOnDisk, folderCountsEverythingBelowItHiddenItemsAndLinksIncluded) {
  world.files.write("/folder/sub/.deep/b", "four");
  world.files.write("/folder/.hidden", "three");
  std::filesystem::create_symlink("sub/.deep/b", world.files.realPath("/folder/link"));
  EXPECT_EQ(sizes.sizeOfFolder("/folder"),
            4 + 5 + 11 + entrySize("/folder/sub") + entrySize("/folder/sub/.deep"));
}

TEST_F(FileSizeOnDisk, emptyFolderIsZero) {
  world.files.createDirectory("/folder");
  EXPECT_EQ(sizes.sizeOfFolder("/folder"), 0);
}

TEST_F(FileSizeOnDisk, folderThatIsAPlainFileIsZero) {
  world.files.write("/folder", "ten bytes.");
  EXPECT_EQ(sizes.sizeOfFolder("/folder"), 0);
}

}  // namespace
