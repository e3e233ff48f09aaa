#include "tests/cli/cli_test.h"

namespace tests::cli {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// An agent with an image tool of its own.
class OtherAgent : public ::cli::Agent {
 public:
  explicit OtherAgent(platform::fake::World& world) : world_(world) {}

  base::Result<std::string> currentVolume() override { return current; }
  base::Result<void> begin(const std::string& volume) override {
    if (!refusal.empty()) return base::Error{refusal};
    begun.push_back(volume);
    if (makesImages)
      world_.files.write(world_.applicationSupport() + "/Stashwick 3/" + volume + "/agents.dmg", "an image");
    return {};
  }
  bool isOver() override { return true; }
  std::string lastFailure() override { return failure; }

  std::string current;
  std::string refusal;
  std::string failure;
  bool makesImages = true;
  std::vector<std::string> begun;

 private:
  platform::fake::World& world_;
};

class Changing : public CliTest {
 protected:
  std::string folder() { return world.applicationSupport() + "/Stashwick 3/STICK"; }
  std::size_t files(const std::string& extension) {
    std::size_t count = 0;
    world.files.enumerate(folder(), {}, [&](const ports::FileItem& item) {
      count += item.name.ends_with(extension) ? 1 : 0;
      return true;
    });
    return count;
  }
};

// --- backup ---

TEST_F(Changing, backsUpAVolumeAndVerifiesTheImage) {
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::done) << error.str();
  EXPECT_THAT(out.str(), HasSubstr("STICK: backed up to STICK/1, 8 bytes, verified\n"));
  EXPECT_THAT(steps(), ElementsAre("create", "verify"));
  EXPECT_THAT(folders.held, ElementsAre(folder()));
}

TEST_F(Changing, leavesABackupToTheAgentAndVerifiesIt) {
  OtherAgent agent(world);
  volumes.agent = &agent;
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::done) << error.str();
  EXPECT_THAT(agent.begun, ElementsAre("STICK"));
  EXPECT_THAT(out.str(), HasSubstr("STICK: backed up to STICK/1, 8 bytes, verified\n"));
  EXPECT_THAT(steps(), ElementsAre("verify"));
  EXPECT_THAT(folders.held, IsEmpty());
}

TEST_F(Changing, backsUpWhatTheAgentWouldNotBackUpLikeThis) {
  OtherAgent agent(world);
  volumes.agent = &agent;
  terminal.input = "secret";
  terminal.answers = {"y"};
  for (const Strings& options :
       {Strings{"--encrypt", "--password-stdin"}, {"--password-stdin"}, {"--erase-after"}}) {
    Strings arguments{"backup", "STICK"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    EXPECT_EQ(ctl(arguments), Exit::done) << error.str();
    world.letSecondsPass(1);
  }
  EXPECT_THAT(agent.begun, IsEmpty());
}

TEST_F(Changing, doesNotLeaveAnEncryptedBackupToAnAgentWithoutAPassword) {
  OtherAgent agent(world);
  volumes.agent = &agent;
  world.defaults.setString("AES-256", "ZQStashwickBackupEncryption");
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::authentication);
  EXPECT_THAT(agent.begun, IsEmpty());
}

TEST_F(Changing, doesNotLeaveABackupToAnAgentThatHasAFailureToTellOf) {
  OtherAgent agent(world);
  volumes.agent = &agent;
  agent.failure = "hdiutil: create failed - No space left on device";
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::done) << error.str();
  EXPECT_THAT(agent.begun, IsEmpty());
}

TEST_F(Changing, keepsOffAVolumeThatTheAgentBacksUp) {
  OtherAgent agent(world);
  volumes.agent = &agent;
  agent.current = "STICK";
  EXPECT_EQ(ctl({"backup", "STICK", "--erase-after", "--yes"}), Exit::busy);
  EXPECT_EQ(error.str(), "stashwickctl: backup failed - the agent is backing up \"STICK\"\n");
  EXPECT_THAT(steps(), IsEmpty());
}

TEST_F(Changing, saysWhyTheAgentDoesNotMakeABackup) {
  OtherAgent agent(world);
  volumes.agent = &agent;
  agent.refusal = "A backup is under way.";
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::busy);
  EXPECT_EQ(error.str(), "stashwickctl: backup failed - A backup is under way.\n");
  agent.refusal.clear();
  agent.makesImages = false;
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::failed);
  EXPECT_EQ(error.str(), "stashwickctl: backup failed - the agent made no backup and does not say why\n");
}

TEST_F(Changing, seesAFailureThatTheEngineKeepsToItself) {
  answers["create"] = "hdiutil: create failed - No space left on device\n";
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::failed);
  EXPECT_EQ(error.str(), "stashwickctl: backup failed - No space left on device\n");
}

TEST_F(Changing, leavesNoManifestOfABackupThatFailed) {
  store("STICK", "older", 1);
  answers["create"] = "hdiutil: create failed - No space left on device\n";
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::failed);
  EXPECT_EQ(files(".manifest"), 1U);
}

TEST_F(Changing, doesNotTrustAToolThatMadeNothing) {
  answers["create"] = "";
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::failed);
  EXPECT_THAT(error.str(), HasSubstr("ended without an image"));
}

TEST_F(Changing, saysThatAnImageDoesNotVerify) {
  answers["verify"] = "hdiutil: verify failed - chunk 3 is damaged\n";
  EXPECT_EQ(ctl({"backup", "STICK", "--erase-after", "--yes"}), Exit::differences);
  EXPECT_THAT(steps(), ElementsAre("create", "verify"));
}

TEST_F(Changing, encryptsWithTheGivenPasswordAndKeepsItOutOfTheKeychain) {
  terminal.input = "secret";
  EXPECT_EQ(ctl({"backup", "STICK", "--encrypt", "--password-stdin"}), Exit::done) << error.str();
  const auto create = world.tools.runs().front();
  EXPECT_THAT(create.arguments, AllOf(Contains("AES-256"), Contains("-stdinpass")));
  EXPECT_EQ(create.standardInput, std::string("secret\0\n", 8));
  EXPECT_EQ(world.keychain.items(), 0U);
}

TEST_F(Changing, makesNoUnencryptedBackupWhereTheSettingsAskForEncryption) {
  world.defaults.set("AES-128", "ZQStashwickBackupEncryption");
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::authentication);
  EXPECT_THAT(world.tools.runs(), IsEmpty());
}

TEST_F(Changing, asksTwiceForANewPassword) {
  terminal.passwords = {"one", "other"};
  EXPECT_EQ(ctl({"backup", "STICK", "--encrypt"}), Exit::authentication);
  EXPECT_THAT(error.str(), HasSubstr("the two passwords differ"));
}

TEST_F(Changing, backsNothingUpThatAnotherProgramWorksOn) {
  folders.otherHolder = "stashwick-agent (process 12)";
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::busy);
  EXPECT_EQ(
      error.str(),
      "stashwickctl: backup failed - stashwick-agent (process 12) is working on the backups of \"STICK\"\n");
  EXPECT_THAT(world.tools.runs(), IsEmpty());
}

TEST_F(Changing, leavesBackupsToTheRunningApplication) {
  world.user.setRunningBundleNames({"Stashwick"});
  EXPECT_EQ(ctl({"backup", "STICK"}), Exit::busy);
}

TEST_F(Changing, knowsNoVolumeThatIsNotAttached) {
  EXPECT_EQ(ctl({"backup", "OTHER"}), Exit::notFound);
  EXPECT_EQ(ctl({"backup", "./OTHER"}), Exit::notFound);
  EXPECT_FALSE(world.files.fileExists(world.applicationSupport() + "/Stashwick 3/OTHER"));
}

TEST_F(Changing, erasesAfterAVerifiedBackupOnceItWasAsked) {
  terminal.answers = {"y"};
  EXPECT_EQ(ctl({"backup", "STICK", "--erase-after"}), Exit::done) << error.str();
  EXPECT_THAT(terminal.asked, ElementsAre("Erase everything on \"STICK\" (2 items, 3 bytes)? [y/N] "));
  EXPECT_THAT(steps(), ElementsAre("create", "verify", "compare", "rm"));
  EXPECT_FALSE(world.files.fileExists("/Volumes/STICK/a"));
}

TEST_F(Changing, erasesNothingThatTheBackupDoesNotHold) {
  differences = {PropertyList::Dictionary{{"path", "a"}, {"change", "changed"}}};
  EXPECT_EQ(ctl({"backup", "STICK", "--erase-after", "--yes"}), Exit::differences);
  EXPECT_THAT(steps(), Not(Contains("rm")));
}

TEST_F(Changing, erasesNothingWhereNobodyAgrees) {
  EXPECT_EQ(ctl({"backup", "STICK", "--erase-after"}), Exit::usage);
  EXPECT_THAT(world.tools.runs(), IsEmpty());
  terminal.answers = {"n"};
  EXPECT_EQ(ctl({"backup", "STICK", "--erase-after"}), Exit::failed);
  EXPECT_THAT(steps(), Not(Contains("rm")));
}

// --- restore ---

TEST_F(Changing, restoresByTheEnginesStepsAndComparesAfterwards) {
  store("STICK", "one", 1);
  terminal.answers = {"yes"};
  EXPECT_EQ(ctl({"restore", "STICK/1"}), Exit::done) << error.str();
  EXPECT_THAT(steps(), ElementsAre("verify", "list", "mount", "rm", "rsync", "unmount", "compare"));
  EXPECT_THAT(out.str(),
              HasSubstr("Everything on \"STICK\" (/media/pat/STICK: 2 items, 3 bytes) will be erased.\n"
                        "STICK/1 of 2026-11-14 14:05:09 (1 item, 2 bytes) comes back.\n"));
  EXPECT_THAT(terminal.asked, ElementsAre("Erase \"STICK\" and restore STICK/1? [y/N] "));
}

TEST_F(Changing, restoresToAnotherVolumeInItsPlace) {
  store("STICK", "one", 1);
  world.disks.plugUSB("OTHER");
  EXPECT_EQ(ctl({"restore", "STICK/1", "--to", "OTHER", "--yes"}), Exit::done) << error.str();
  EXPECT_THAT(volumes.stoodIn, ElementsAre(std::pair<std::string, std::string>("STICK", "OTHER")));
}

TEST_F(Changing, erasesNothingForADamagedBackup) {
  store("STICK", "one", 1);
  answers["verify"] = "hdiutil: verify failed - chunk 3 is damaged\n";
  EXPECT_EQ(ctl({"restore", "STICK/1", "--yes"}), Exit::differences);
  EXPECT_THAT(steps(), ElementsAre("verify"));
}

TEST_F(Changing, restoresOntoNoVolumeThatIsNotAttached) {
  store("GONE", "one", 1);
  EXPECT_EQ(ctl({"restore", "GONE/1", "--yes"}), Exit::notFound);
  EXPECT_THAT(world.tools.runs(), IsEmpty());
}

TEST_F(Changing, erasesNothingThatIsTooSmall) {
  store("STICK", "one", 1);
  world.files.setFreeSize("/Volumes/STICK", 100);
  answers["list"] = listOf({PropertyList::Dictionary{{"path", "big"}, {"size", 5000}}});
  EXPECT_EQ(ctl({"restore", "STICK/1", "--yes"}), Exit::failed);
  EXPECT_THAT(error.str(),
              HasSubstr("\"STICK\" is too small: the backup holds 4.9 KB, and there is room for 103 bytes"));
  EXPECT_THAT(steps(), ElementsAre("verify", "list"));
}

TEST_F(Changing, erasesNothingWhenTheMountFails) {
  store("STICK", "one", 1);
  answers["mount"] = "hdiutil: mount failed - no room\n";
  EXPECT_EQ(ctl({"restore", "STICK/1", "--yes"}), Exit::failed);
  EXPECT_THAT(steps(), Not(Contains("rm")));
  EXPECT_EQ(error.str(), "stashwickctl: restore failed - no room\n");
}

TEST_F(Changing, saysWhatToDoAboutAnIncompleteVolume) {
  store("STICK", "one", 1);
  world.tools.answerTool("/usr/bin/rsync", "rsync: write failed on \"a\": No space left on device (28)\n");
  differences = {PropertyList::Dictionary{{"path", "a"}, {"change", "removed"}}};
  EXPECT_EQ(ctl({"restore", "STICK/1", "--yes"}), Exit::failed);
  EXPECT_THAT(error.str(),
              AllOf(HasSubstr("No space left on device"),
                    HasSubstr("\"STICK\" is incomplete now. The backup is untouched. To try again:\n"
                              "  stashwickctl restore 'STICK/1' --to 'STICK'\n")));
  EXPECT_THAT(steps(), Contains("unmount"));
}

TEST_F(Changing, restoresOntoAFileSystemThatKnowsNoOwners) {
  store("STICK", "one", 1);
  world.tools.answerTool("/usr/bin/rsync", "rsync: chgrp \"a\" failed: Operation not permitted (1)\n");
  differences = {PropertyList::Dictionary{
      {"path", "a"}, {"change", "changed"}, {"what", PropertyList::Array{"owner", "mode"}}}};
  EXPECT_EQ(ctl({"restore", "STICK/1", "--yes"}), Exit::done);
  EXPECT_THAT(error.str(), HasSubstr("not every attribute"));
}

// --- remove and prune ---

TEST_F(Changing, removesTheImageBeforeItsManifest) {
  const auto image = store("STICK", "one", 1);
  EXPECT_EQ(ctl({"remove", "STICK/1", "--yes"}), Exit::done);
  EXPECT_THAT(folders.removed, ElementsAre(image, folder() + "/one.manifest"));
}

TEST_F(Changing, removesNothingUnasked) {
  store("STICK", "one", 1);
  EXPECT_EQ(ctl({"remove", "STICK/1"}), Exit::usage);
  terminal.answers = {"n"};
  EXPECT_EQ(ctl({"remove", "STICK/1"}), Exit::failed);
  EXPECT_THAT(terminal.asked[0], HasSubstr("No other backup of \"STICK\" is left then."));
  EXPECT_THAT(folders.removed, IsEmpty());
}

TEST_F(Changing, numbersStayTheSameWhileSeveralBackupsAreRemoved) {
  store("STICK", "one", 3);
  store("STICK", "two", 2);
  store("STICK", "three", 1);
  EXPECT_EQ(ctl({"remove", "STICK/1", "STICK/2", "STICK/1", "--yes"}), Exit::done);
  EXPECT_EQ(ctl({"files", "STICK/1"}), Exit::done);
  EXPECT_TRUE(world.files.fileExists(folder() + "/three.dmg"));
  EXPECT_EQ(files(".dmg"), 1U);
}

TEST_F(Changing, prunesByRuleAndSaysWhy) {
  store("STICK", "one", 3);
  store("STICK", "two", 1);
  EXPECT_EQ(ctl({"prune", "--keep-last", "1"}), Exit::done) << error.str();
  EXPECT_EQ(out.str(),
            "remove  STICK/1  2026-11-12 14:05:09\n"
            "keep    STICK/2  2026-11-14 14:05:09  (one of the last 1)\n");
  EXPECT_EQ(files(".dmg"), 1U);
}

TEST_F(Changing, prunesNothingInADryRun) {
  store("STICK", "one", 3);
  store("STICK", "two", 1);
  EXPECT_EQ(ctl({"prune", "STICK", "--keep-daily", "1", "--dry-run"}), Exit::done);
  EXPECT_THAT(out.str(), HasSubstr("remove  STICK/1"));
  EXPECT_THAT(folders.removed, IsEmpty());
  EXPECT_THAT(folders.held, IsEmpty());
}

TEST_F(Changing, prunesNothingWhenNoSoundBackupWouldStay) {
  store("STICK", "one", 3);
  store("STICK", "two", 1);
  answers["verify"] = "hdiutil: verify failed - chunk 3 is damaged\n";
  EXPECT_EQ(ctl({"prune", "--keep-last", "1"}), Exit::usage);
  EXPECT_THAT(folders.removed, IsEmpty());
  EXPECT_EQ(ctl({"prune", "--keep-last", "1", "--yes"}), Exit::done);
  EXPECT_EQ(files(".dmg"), 1U);
}

TEST_F(Changing, prunesNothingWithoutARule) {
  store("STICK", "one", 3);
  EXPECT_EQ(ctl({"prune"}), Exit::usage);
  EXPECT_EQ(files(".dmg"), 1U);
}

// --- passwords, settings, automatic backups ---

TEST_F(Changing, storesAPasswordInTheKeychain) {
  terminal.passwords = {"secret", "secret"};
  EXPECT_EQ(ctl({"password", "set"}), Exit::done) << error.str();
  EXPECT_EQ(world.keychain.secret("Stashwick 3", world.user.fullUserName()), "secret");
  EXPECT_EQ(ctl({"password", "check"}), Exit::done);
  EXPECT_EQ(ctl({"password", "forget"}), Exit::done);
  EXPECT_EQ(ctl({"password", "check"}), Exit::notFound);
}

TEST_F(Changing, doesNotPretendToStoreAPasswordWhereThereIsNoKeychain) {
  world.keychain.failWith(ports::errSecNotAvailable);
  terminal.passwords = {"secret", "secret"};
  EXPECT_EQ(ctl({"password", "set"}), Exit::failed);
  EXPECT_THAT(error.str(), HasSubstr("password set failed - there is no keychain on this machine"));
  EXPECT_EQ(world.keychain.items(), 0U);
}

TEST_F(Changing, saysThatTheKeychainIsLocked) {
  world.keychain.failWith(ports::errSecInteractionNotAllowed);
  EXPECT_EQ(ctl({"password", "check"}), Exit::authentication);
  EXPECT_THAT(error.str(), HasSubstr("the keychain is locked"));
}

TEST_F(Changing, checksAPasswordAgainstABackup) {
  storesEncrypted = true;
  store("STICK", "one", 1);
  password = "secret";
  terminal.input = "secret";
  EXPECT_EQ(ctl({"password", "check", "STICK/1", "--password-stdin"}), Exit::done) << error.str();
  terminal.input = "wrong";
  EXPECT_EQ(ctl({"password", "check", "STICK/1", "--password-stdin"}), Exit::authentication);
}

TEST_F(Changing, showsAndChangesSettings) {
  EXPECT_EQ(ctl({"settings", "encryption", "AES-128"}), Exit::done);
  EXPECT_EQ(world.defaults.stringForKey("ZQStashwickBackupEncryption"), "AES-128");
  EXPECT_EQ(ctl({"settings", "automatic-backups", "on"}), Exit::done);
  EXPECT_EQ(ctl({"settings", "--json"}), Exit::done);
  EXPECT_EQ(out.str(), "{\"automatic-backups\": \"on\", \"encryption\": \"AES-128\"}\n");
  EXPECT_EQ(ctl({"settings", "encryption", "none"}), Exit::done);
  EXPECT_EQ(world.defaults.stringForKey("ZQStashwickBackupEncryption"), std::nullopt);
}

TEST_F(Changing, refusesSettingsThatThereAreNot) {
  EXPECT_EQ(ctl({"settings", "colour"}), Exit::notFound);
  EXPECT_EQ(ctl({"settings", "encryption", "ROT-13"}), Exit::usage);
  EXPECT_EQ(ctl({"settings", "automatic-backups", "perhaps"}), Exit::usage);
}

TEST_F(Changing, setsWhatHappensWhenAVolumeArrives) {
  for (const auto& [answer, flag] : std::map<std::string, std::int32_t>{{"on", 1}, {"off", -1}, {"ask", 0}}) {
    EXPECT_EQ(ctl({"auto", "STICK", answer}), Exit::done) << error.str();
    EXPECT_EQ(automatic.flags["STICK"], flag);
    EXPECT_EQ(ctl({"auto", "STICK"}), Exit::done);
    EXPECT_EQ(out.str(), answer + "\n");
  }
  EXPECT_EQ(ctl({"auto", "STICK", "never"}), Exit::usage);
}

}  // namespace
}  // namespace tests::cli
