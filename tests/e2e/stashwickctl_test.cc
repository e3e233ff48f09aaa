#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>

#include "tests/e2e/agent_world.h"
#include "tests/support/own_mounts.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class Ctl : public AgentWorld {
 protected:
  Outcome backUpStick(Arguments options = {}) {
    options.insert(options.begin(), {"backup", makeStick("STICK")});
    auto run = ctl(options);
    EXPECT_EQ(run.status, 0) << run.errors;
    return run;
  }
  std::string passwordFile(const std::string& password) {
    temporary.write("password-of-" + password, password + "\n");
    return "--password-file=" + temporary / ("password-of-" + password);
  }
  Arguments manifestsOf(const std::string& volume) const { return filesIn(storeOf(volume), ".manifest"); }
};

TEST_F(Ctl, backsUpAFolderAndListsIt) {
  const auto run = backUpStick();
  ASSERT_THAT(imagesOf("STICK"), SizeIs(1));
  EXPECT_THAT(run.output, AllOf(HasSubstr("STICK: backed up to STICK/1, "), HasSubstr(imagesOf("STICK")[0])));
  expectHoldsFolder(imagesOf("STICK")[0], temporary / "STICK");
  EXPECT_THAT(ctl({"list", "--verify"}).output, AllOf(HasSubstr("STICK/1"), HasSubstr("sound")));
  EXPECT_EQ(ctl({"verify", "--all"}).output, "STICK/1: sound\n");
}

TEST_F(Ctl, printsJsonThatOtherProgramsRead) {
  backUpStick();
  const auto read = shell(std::string("\"") + CTL_PROGRAM +
                          "\" list --json | python3 -c 'import json, sys\n"
                          "for backup in json.load(sys.stdin): print(backup[\"name\"], backup[\"files\"])'");
  EXPECT_EQ(read.output, "STICK/1 5\n") << read.errors;
}

TEST_F(Ctl, showsWhatABackupHolds) {
  backUpStick();
  EXPECT_THAT(ctl({"files", "STICK/1"}).output,
              AllOf(HasSubstr("notes.txt\n"), HasSubstr("folder with blanks/\n"), Not(HasSubstr(".hidden"))));
  EXPECT_THAT(ctl({"files", "STICK/1", "--long"}).output,
              AllOf(HasSubstr("link -> notes.txt\n"), HasSubstr(".hidden\n"), HasSubstr("100000")));
}

TEST_F(Ctl, copiesFilesOutOfABackup) {
  backUpStick();
  const auto run = ctl({"extract", "STICK/latest", "folder with blanks", "--to", temporary / "out"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_TRUE(temporary.read("out/folder with blanks/日本.bin") == std::string(100000, 'x'));
  EXPECT_FALSE(fs::exists(temporary / "out/notes.txt"));
  const auto absent = ctl({"extract", "STICK/1", "no such file", "--to", temporary / "out"});
  EXPECT_EQ(absent.status, 3);
  EXPECT_THAT(absent.errors, HasSubstr("extract failed - no such file: there is no such item in the image"));
  EXPECT_EQ(ctl({"extract", "STICK/1", "notes.txt/below", "--to", temporary / "out"}).status, 3);
}

TEST_F(Ctl, saysWhatHasChangedSinceABackup) {
  backUpStick();
  EXPECT_EQ(ctl({"diff", "STICK/1", temporary / "STICK"}).status, 0);
  temporary.write("STICK/notes.txt", "other notes\n");
  temporary.write("STICK/new.txt", "new\n");
  const auto run = ctl({"diff", "STICK/1", temporary / "STICK"});
  EXPECT_EQ(run.status, 6);
  EXPECT_THAT(run.output,
              AllOf(HasSubstr("notes.txt  contents"), HasSubstr("new.txt"), Not(HasSubstr("日本"))));
}

TEST_F(Ctl, findsDamage) {
  backUpStick();
  ASSERT_EQ(shell("printf x | dd of=\"" + imagesOf("STICK")[0] + "\" bs=1 seek=100 conv=notrunc").status, 0);
  const auto run = ctl({"verify", "STICK/1"});
  EXPECT_EQ(run.status, 6);
  EXPECT_THAT(run.errors, HasSubstr("STICK/1: verify failed - "));
}

TEST_F(Ctl, opensAnEncryptedBackupWithItsPasswordOnly) {
  backUpStick({"--encrypt", passwordFile("right")});
  EXPECT_THAT(ctl({"list"}).output, HasSubstr("encrypted"));
  EXPECT_EQ(ctl({"verify", "STICK/1", passwordFile("right")}).status, 0);
  const auto wrong = ctl({"verify", "STICK/1", passwordFile("wrong")});
  EXPECT_EQ(wrong.status, 4);
  EXPECT_THAT(wrong.errors, HasSubstr("verify failed - Authentication error"));
  EXPECT_EQ(ctl({"verify", "STICK/1"}).status, 4);
  const auto piped =
      shell(std::string("echo right | \"") + CTL_PROGRAM + "\" files STICK/1 --long --password-stdin");
  EXPECT_THAT(piped.output, HasSubstr("notes.txt")) << piped.errors;
}

TEST_F(Ctl, asksForAPasswordWithoutShowingIt) {
  makeStick("STICK");
  const auto backup = openCtl({"backup", "./STICK", "--encrypt"});
  backup->expect("Password: ");
  backup->type("hush-hush\n");
  backup->expect("The same again: ");
  backup->type("hush-hush\n");
  EXPECT_EQ(backup->wait(), 0) << backup->output();
  EXPECT_THAT(backup->output(), Not(HasSubstr("hush")));
  EXPECT_EQ(ctl({"verify", "STICK/1", passwordFile("hush-hush")}).status, 0);
}

TEST_F(Ctl, restoresAFolder) {
  ASSERT_NO_FATAL_FAILURE(takeOwnMountsAsRoot());
  backUpStick();
  const auto before = shell("cp -a STICK kept && find STICK | sort");
  temporary.write("STICK/notes.txt", "other notes\n");
  temporary.write("STICK/new.txt", "new\n");
  const auto run = ctl({"restore", "STICK/1", "--to", temporary / "STICK", "--yes"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("STICK: restored STICK/1, and compared with it\n"));
  EXPECT_EQ(shell("find STICK | sort").output, before.output);
  EXPECT_EQ(shell("diff -r --no-dereference STICK kept").status, 0);
}

TEST_F(Ctl, restoresAnEncryptedBackupToAnotherFolder) {
  ASSERT_NO_FATAL_FAILURE(takeOwnMountsAsRoot());
  backUpStick({"--encrypt", passwordFile("right")});
  fs::create_directory(temporary / "OTHER");
  const auto run = ctl({"restore", "STICK/1", "--to", temporary / "OTHER", "--yes", passwordFile("right")});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(shell("diff -r --no-dereference STICK OTHER").status, 0);
}

TEST_F(Ctl, restoresOntoAFolderThatAKilledRestoreRemoved) {
  ASSERT_NO_FATAL_FAILURE(takeOwnMountsAsRoot());
  backUpStick();
  ASSERT_EQ(shell("mv STICK kept").status, 0);
  const auto asked = openCtl({"restore", "STICK/1", "--to", "./STICK"});
  asked->expect("There is no folder './STICK'. Make it? [y/N] ");
  asked->type("n\n");
  EXPECT_EQ(asked->wait(), 1);
  EXPECT_FALSE(fs::exists(temporary / "STICK"));
  const auto run = ctl({"restore", "STICK/1", "--to", temporary / "STICK", "--yes"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(shell("diff -r --no-dereference STICK kept").status, 0);
}

TEST_F(Ctl, tellsThatAFolderCannotBeMade) {
  backUpStick();
  const auto run = ctl({"restore", "STICK/1", "--to", temporary / "STICK/notes.txt/folder", "--yes"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("cannot make the folder"));
}

TEST_F(Ctl, restoresNothingUnasked) {
  backUpStick();
  EXPECT_EQ(ctl({"restore", "STICK/1", "--to", temporary / "STICK"}).status, 2);
  const auto asked = openCtl({"restore", "STICK/1", "--to", "./STICK"});
  asked->expect("Erase \"STICK\" and restore STICK/1? [y/N] ");
  asked->type("n\n");
  EXPECT_EQ(asked->wait(), 1);
  EXPECT_TRUE(fs::exists(temporary / "STICK/notes.txt"));
}

TEST_F(Ctl, restoresOntoNoFolderThatHoldsTheStore) {
  backUpStick();
  EXPECT_EQ(ctl({"restore", "STICK/1", "--to", temporary / "home", "--yes"}).status, 2);
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1));
}

TEST_F(Ctl, erasesAVolumeThatIsInItsBackup) {
  const auto run = backUpStick({"--erase-after", "--yes"});
  EXPECT_THAT(run.output, EndsWith("\"STICK\" was erased.\n"));
  EXPECT_FALSE(fs::exists(temporary / "STICK/notes.txt"));
  EXPECT_EQ(ctl({"verify", "STICK/1"}).status, 0);
}

TEST_F(Ctl, removesABackupWithItsManifest) {
  backUpStick();
  EXPECT_EQ(ctl({"remove", "STICK/1", "--yes"}).status, 0);
  EXPECT_THAT(imagesOf("STICK"), IsEmpty());
  EXPECT_THAT(manifestsOf("STICK"), IsEmpty());
}

TEST_F(Ctl, prunesBackupsOfOneSecondEach) {
  backUpStick();
  EXPECT_EQ(ctl({"backup", temporary / "STICK"}).status, 0);
  const auto kept = ctl({"list", "--quiet"}).output;
  ASSERT_THAT(imagesOf("STICK"), SizeIs(2)) << kept;
  EXPECT_EQ(ctl({"prune", "--keep-last", "1"}).status, 0);
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1));
  EXPECT_THAT(manifestsOf("STICK"), SizeIs(1));
}

TEST_F(Ctl, keepsOffAVolumeThatAnotherProgramWorksOn) {
  backUpStick();
  const auto run = shell("flock \"" + storeOf("STICK") + "\" \"" + CTL_PROGRAM + "\" backup ./STICK");
  EXPECT_EQ(run.status, 5);
  EXPECT_THAT(run.errors,
              testing::ContainsRegex("backup failed - (flock \\(process [0-9]+\\)|another program) is "
                                     "working on the backups of \"STICK\""));
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1));
}

TEST_F(Ctl, keepsTheAgentOffAVolumeThatItWorksOn) {
  backUpStick();
  const auto run =
      shell("flock \"" + storeOf("STICK") + "\" \"" + AGENT_PROGRAM + "\" --answer backup STICK");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output,
              HasSubstr("hdiutil: create failed - another program is working on the backups of STICK"));
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1));
}

TEST_F(Ctl, leavesNothingHalfDoneWhenItIsInterrupted) {
  ASSERT_EQ(shell("mkdir STICK && cd STICK && for i in $(seq 200); do truncate -s 64M $i; done").status, 0);
  const auto backup = openCtl({"backup", "./STICK"});
  backup->expect("Backing up \"STICK\" ...");
  backup->type("\x03");
  EXPECT_EQ(backup->wait(), 130) << backup->output();
  EXPECT_TRUE(fs::is_empty(storeOf("STICK")));
}

TEST_F(Ctl, endsAQuestionWithCtrlC) {
  backUpStick();
  const auto remove = openCtl({"remove", "STICK/1"});
  remove->expect("[y/N] ");
  remove->type("\x03");
  EXPECT_EQ(remove->wait(), 130);
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1));
}

TEST_F(Ctl, sharesTheListOfAutomaticBackupsWithTheAgent) {
  makeStick("STICK");
  EXPECT_EQ(ctl({"auto", "./STICK", "on"}).status, 0);
  EXPECT_EQ(ctl({"auto", "./STICK"}).output, "on\n");
  EXPECT_EQ(runAgent({"--answer", "later", temporary / "STICK"}).status, 0);
  EXPECT_THAT(imagesOf("STICK"), SizeIs(1));
}

TEST_F(Ctl, sharesItsSettingsWithTheAgent) {
  makeStick("STICK");
  EXPECT_EQ(ctl({"settings", "encryption", "AES-128"}).status, 0);
  EXPECT_EQ(backUp({passwordFile("right"), temporary / "STICK"}).status, 0);
  EXPECT_EQ(ctl({"verify", "STICK/1"}).status, 4);
  EXPECT_EQ(ctl({"verify", "STICK/1", passwordFile("right")}).status, 0);
}

TEST_F(Ctl, changesTheSettingsOfAnAgentThatRuns) {
  makeStick("STICK");
  fs::create_directory(temporary / "volumes");
  const auto agent = startAgent({"--headless", "--once", "--answer", "backup", passwordFile("right"),
                                 "--volumes-folder", temporary / "volumes"});
  agent->expect("Waiting for a volume to arrive.");
  EXPECT_EQ(ctl({"settings", "encryption", "AES-128"}).status, 0);
  fs::rename(temporary / "STICK", temporary / "volumes/STICK");
  EXPECT_EQ(agent->wait(), 0) << agent->errors();
  EXPECT_EQ(ctl({"verify", "STICK/1"}).status, 4);
  EXPECT_EQ(ctl({"verify", "STICK/1", passwordFile("right")}).status, 0);
}

TEST_F(Ctl, saysThatThereIsNoKeychain) {
  const auto run = ctl({"password", "set", passwordFile("right")});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("password set failed - there is no keychain on this machine"));
}

TEST_F(Ctl, completesWordsInBash) {
  backUpStick();
  const auto completed = shell(std::string("PATH=\"$(dirname '") + CTL_PROGRAM +
                               "'):$PATH\" bash -c 'source \"" PACKAGING_FOLDER
                               "/completions/stashwickctl.bash\"\n"
                               "COMP_WORDS=(stashwickctl files ST) COMP_CWORD=2\n"
                               "_stashwickctl; printf \"%s\\n\" \"${COMPREPLY[@]}\"'");
  EXPECT_EQ(completed.output, "STICK/1\nSTICK/latest\n") << completed.errors;
}

TEST_F(Ctl, hasAManualWithoutFaults) {
  const auto checked =
      shell("man --warnings -E UTF-8 -l -Tutf8 '" PACKAGING_FOLDER "/man/stashwickctl.1' >/dev/null");
  EXPECT_EQ(checked.status, 0);
  EXPECT_EQ(checked.errors, "");
}

}  // namespace
