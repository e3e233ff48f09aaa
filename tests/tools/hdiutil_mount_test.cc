#include <atomic>
#include <gmock/gmock.h>
#include <sstream>

#include "tests/tools/scratch_folder.h"
#include "tools/hdiutil.h"

namespace {

using testing::HasSubstr;
using TakenName = image::MountRequest::TakenName;

// The verbs, above a host that only says what it was asked for.
class MountVerb : public testing::Test {
 protected:
  void SetUp() override {
    scratch.write("source/file", "text");
    create(plain, {});
    create(encrypted, {"-encryption", "AES-128", "-stdinpass"});
    timesAsked = 0;
  }

  void create(const std::string& path, std::vector<std::string> options) {
    options.insert(options.begin(), {"create", "-volname", "STICK-Backup", "-srcfolder", scratch / "source"});
    options.push_back(path);
    ASSERT_EQ(run(options), 0) << error.str();
  }

  int run(const std::vector<std::string>& arguments) {
    out.str("");
    error.str("");
    const auto readPassword = [this] {
      ++timesAsked;
      return base::Result<base::Secret>(base::Secret("secret"));
    };
    const auto mount = [this](const image::MountRequest& request, std::optional<base::Secret> password) {
      mountRequest = request;
      givenPassword = password ? std::string(password->reveal()) : "none";
      return mounted;
    };
    const auto unmount = [this](const image::UnmountRequest& request) {
      unmountRequest = request;
      return unmounted;
    };
    return tools::hdiutil(arguments, {.out = out,
                                      .error = error,
                                      .readPassword = readPassword,
                                      .errorIsTerminal = false,
                                      .cancelled = interrupted,
                                      .mount = mount,
                                      .unmount = unmount});
  }

  ScratchFolder scratch;
  const std::string plain = scratch / "plain.dmg";
  const std::string encrypted = scratch / "encrypted.dmg";
  const std::atomic<bool> interrupted = false;
  std::ostringstream out;
  std::ostringstream error;
  int timesAsked = 0;
  image::MountRequest mountRequest;
  image::UnmountRequest unmountRequest;
  std::string givenPassword;
  base::Result<image::Mounted> mounted =
      image::Mounted{.mountPoint = "/v/STICK-Backup", .volumeName = "STICK-Backup"};
  base::Result<std::string> unmounted = std::string("/v/STICK-Backup");
};

TEST_F(MountVerb, verifiesAndRefusesATakenNameAsMount) {
  EXPECT_EQ(run({"mount", plain}), 0);
  EXPECT_EQ(mountRequest.image, plain);
  EXPECT_EQ(mountRequest.takenName, TakenName::refuse);
  EXPECT_TRUE(mountRequest.verifiesFirst);
  EXPECT_EQ(out.str(), "/v/STICK-Backup\n");
  EXPECT_EQ(error.str(), "");
}

TEST_F(MountVerb, findsAFreeNameWithoutVerifyingAsAttach) {
  mounted->mountPoint = "/v/STICK-Backup 1";
  EXPECT_EQ(run({"attach", plain}), 0);
  EXPECT_EQ(mountRequest.takenName, TakenName::findFreeOne);
  EXPECT_FALSE(mountRequest.verifiesFirst);
  EXPECT_EQ(out.str(), "/v/STICK-Backup 1\tof the volume \"STICK-Backup\"\n");
}

TEST_F(MountVerb, verifiesOrNotAsItIsTold) {
  run({"mount", "-noverify", plain});
  EXPECT_FALSE(mountRequest.verifiesFirst);
  run({"attach", "-verify", plain});
  EXPECT_TRUE(mountRequest.verifiesFirst);
}

TEST_F(MountVerb, asksForThePasswordOfAnEncryptedImageOnly) {
  EXPECT_EQ(run({"mount", plain}), 0);
  EXPECT_EQ(timesAsked, 0);
  EXPECT_EQ(givenPassword, "none");
  EXPECT_EQ(run({"mount", encrypted}), 0);
  EXPECT_EQ(timesAsked, 1);
  EXPECT_EQ(givenPassword, "secret");
}

TEST_F(MountVerb, readsAPasswordThatIsSaidToBeThere) {
  EXPECT_EQ(run({"mount", "-stdinpass", plain}), 0);
  EXPECT_EQ(timesAsked, 1);
}

TEST_F(MountVerb, saysThatTheImageWasMountedBefore) {
  mounted->wasMounted = true;
  EXPECT_EQ(run({"mount", plain}), 0);
  EXPECT_EQ(out.str(), "/v/STICK-Backup\talready mounted\n");
}

TEST_F(MountVerb, tellsTheMountPointInAPropertyList) {
  EXPECT_EQ(run({"attach", "-plist", "-mountpoint", "/v/x", plain}), 0);
  EXPECT_EQ(mountRequest.mountPoint, "/v/x");
  EXPECT_THAT(out.str(), HasSubstr("<key>mount-point</key>\n\t\t\t<string>/v/STICK-Backup</string>"));
}

TEST_F(MountVerb, tellsWhyItFailed) {
  mounted = base::Error{"/v/STICK-Backup is taken by another image"};
  EXPECT_EQ(run({"mount", plain}), 1);
  EXPECT_EQ(error.str(), "hdiutil: mount failed - /v/STICK-Backup is taken by another image\n");
  EXPECT_EQ(run({"mount", scratch / "gone.dmg"}), 1);
  EXPECT_THAT(error.str(), HasSubstr("hdiutil: mount failed - "));
  EXPECT_EQ(run({"attach"}), 64);
  EXPECT_EQ(error.str(), "hdiutil: attach failed - one image path is needed\n");
  EXPECT_EQ(run({"attach", "-unknown", plain}), 64);
}

TEST_F(MountVerb, failureCannotBeHiddenByANameThatReadsAsAPropertyList) {
  EXPECT_EQ(run({"mount", scratch / "<string>all is well<string>.dmg"}), 1);
  EXPECT_THAT(error.str(), testing::StartsWith("hdiutil: mount failed - "));
  EXPECT_THAT(error.str(), HasSubstr("&lt;string>all is well&lt;string>.dmg"));
  EXPECT_THAT(error.str(), testing::Not(HasSubstr("<string>")));
}

TEST_F(MountVerb, unmountsUnderBothNames) {
  for (const char* verb : {"unmount", "detach"}) {
    EXPECT_EQ(run({verb, "/Volumes/STICK-Backup/"}), 0);
    EXPECT_EQ(unmountRequest.place, "/Volumes/STICK-Backup/");
    EXPECT_FALSE(unmountRequest.force);
    EXPECT_EQ(out.str(), "unmounted: /v/STICK-Backup\n");
  }
  EXPECT_EQ(run({"detach", "-force", "/v/x", "-verbose"}), 0);
  EXPECT_TRUE(unmountRequest.force);
}

TEST_F(MountVerb, tellsWhyNothingWasUnmounted) {
  unmounted = base::Error{"/v/x is busy"};
  EXPECT_EQ(run({"unmount", "/v/x"}), 1);
  EXPECT_EQ(error.str(), "hdiutil: unmount failed - /v/x is busy\n");
  EXPECT_EQ(run({"unmount"}), 64);
  EXPECT_THAT(error.str(), HasSubstr("hdiutil: unmount failed - "));
}

}  // namespace
