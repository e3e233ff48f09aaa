#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "image/udif/writer.h"
#include "tests/tools/hdiutil_run.h"
#include "tests/tools/scratch_folder.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class HdiutilVerify : public testing::Test {
 protected:
  HdiutilVerify() { scratch.write("source/file", "content"); }

  void create(const std::string& password) {
    std::vector<std::string> arguments{"create", "-srcfolder", scratch / "source", "-volname", "V", image};
    if (!password.empty()) arguments.insert(arguments.end(), {"-encryption", "AES-256", "-stdinpass"});
    ASSERT_EQ(runHdiutil(arguments, {.password = password}).status, 0);
  }
  void flip(std::size_t at) {
    auto bytes = readFile(image);
    bytes.at(at) = static_cast<char>(bytes.at(at) ^ 1);
    scratch.write("out.dmg", bytes);
  }

  ScratchFolder scratch;
  std::string image = scratch / "out.dmg";
};

TEST_F(HdiutilVerify, saysThatASoundImageIsValid) {
  create("");
  const auto run = runHdiutil({"verify", image});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.error, AllOf(HasSubstr("is VALID"), Not(HasSubstr("failed"))));
}

TEST_F(HdiutilVerify, failsForADamagedImage) {
  create("");
  flip(40);
  const auto run = runHdiutil({"verify", image});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.error, StartsWith("hdiutil: verify failed - "));
}

TEST_F(HdiutilVerify, opensAnEncryptedImageWithItsPassword) {
  create("secret");
  EXPECT_EQ(runHdiutil({"verify", image, "-stdinpass"}, {.password = "secret"}).status, 0);
}

TEST_F(HdiutilVerify, callsAWrongPasswordAnAuthenticationError) {
  create("secret");
  for (const auto& run :
       {runHdiutil({"verify", image, "-stdinpass"}, {.password = "wrong"}), runHdiutil({"verify", image})}) {
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.error, StartsWith("hdiutil: verify failed - Authentication error"));
  }
}

TEST_F(HdiutilVerify, noticesDamageInsideAnEncryptedImage) {
  create("secret");
  for (const std::size_t at : {std::size_t{60}, std::size_t{130}, std::size_t{123'000}}) {
    flip(at);
    EXPECT_NE(runHdiutil({"verify", image, "-stdinpass"}, {.password = "secret"}).status, 0) << at;
    flip(at);
  }
}

TEST_F(HdiutilVerify, refusesAFileThatIsNoImage) {
  scratch.write("out.dmg", std::string(5000, 'x'));
  EXPECT_THAT(runHdiutil({"verify", image}).error, HasSubstr("not a disk image"));
}

// A disk without a partition map or a file system.
class Noise : public image::block::Content {
 public:
  std::uint64_t size() const override { return 4096; }
  std::unique_ptr<image::block::ContentReader> openReader() const override {
    return std::make_unique<Reader>();
  }

 private:
  class Reader : public image::block::ContentReader {
   public:
    base::Result<image::block::Filled> read(std::uint64_t, std::span<std::byte> into) override {
      for (std::size_t i = 0; i < into.size(); ++i) into[i] = static_cast<std::byte>(i * i >> 3);
      return image::block::Filled::data;
    }
  };
};

class StringOutput : public image::block::Output {
 public:
  base::Result<void> write(std::uint64_t offset, std::span<std::byte> from) override {
    if (bytes.size() < offset + from.size()) bytes.resize(offset + from.size());
    std::ranges::copy(from,
                      std::as_writable_bytes(std::span(bytes)).begin() + static_cast<std::ptrdiff_t>(offset));
    return {};
  }

  std::string bytes;
};

TEST_F(HdiutilVerify, saysWhenThereIsNoVolumeThatItCouldCheck) {
  StringOutput output;
  ASSERT_TRUE(image::udif::writeImage(Noise(), {{"whole disk", 0, 8}}, output, {}));
  scratch.write("out.dmg", output.bytes);
  const auto run = runHdiutil({"verify", image});
  EXPECT_EQ(run.status, 0) << run.error;
  EXPECT_THAT(run.error, AllOf(HasSubstr("is VALID"), HasSubstr("no HFS+ volume in it")));
}

TEST_F(HdiutilVerify, infoDescribesTheImage) {
  create("secret");
  const auto run = runHdiutil({"imageinfo", "-plist", "-stdinpass", image}, {.password = "secret"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.out, AllOf(HasSubstr("<string>UDZO</string>"), HasSubstr("Apple_HFS"),
                             HasSubstr("<key>Encrypted</key>\n\t\t<true/>")));
  const auto text = runHdiutil({"imageinfo", "-stdinpass", image}, {.password = "secret"});
  EXPECT_THAT(text.out, AllOf(HasSubstr("Format: UDZO"), HasSubstr("Encrypted: true")));
}

}  // namespace
