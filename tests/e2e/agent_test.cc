#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include "tests/e2e/agent_world.h"
#include "tests/support/own_mounts.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr const char* kQuestion = "Backup \"STICK\"?";

class Agent : public AgentWorld {
 protected:
  // Makes room for a backup in the same second: names tell seconds.
  void renameImages() {
    for (const auto& image : imagesOf("STICK"))
      fs::rename(image, fs::path(image).parent_path() / "earlier.dmg");
  }
  std::string flags() { return temporary.read("home/data/Stashwick 3/StashwickHelper.plist"); }
};

// --- the main job ---

TEST_F(Agent, backsUpAFolderIntoAnImage) {
  const auto stick = makeStick("STICK");
  const auto run = runAgent({"--headless", "--once", "--answer", "backup", stick});
  EXPECT_EQ(run.status, 0) << run.errors;
  ASSERT_THAT(imagesOf("STICK"), SizeIs(1));
  EXPECT_THAT(run.output,
              AllOf(HasSubstr(kQuestion), HasSubstr("STICK: backed up to " + imagesOf("STICK")[0])));
  expectHoldsFolder(imagesOf("STICK")[0], stick);
}

TEST_F(Agent, writesAManifestBesideTheImage) {
  backUp({makeStick("STICK")});
  ASSERT_THAT(imagesOf("STICK"), SizeIs(1));
  const std::string manifest = fs::path(imagesOf("STICK")[0]).replace_extension("manifest");
  const auto read = shell(
      "python3 -c 'import plistlib, sys\n"
      "archive = plistlib.load(open(sys.argv[1], \"rb\"))\n"
      "texts = [text for text in archive[\"$objects\"] if isinstance(text, str)]\n"
      "print(archive[\"$archiver\"], *texts, sep=\"\\n\")' \"" +
      manifest + "\"");
  EXPECT_EQ(read.status, 0) << read.errors;
  EXPECT_THAT(read.output,
              AllOf(HasSubstr("NSKeyedArchiver\n"), HasSubstr("file:///Volumes/STICK/notes.txt\n"),
                    HasSubstr("HFS+\n"), Not(HasSubstr(".hidden"))));
}

TEST_F(Agent, estimatesFourFifthsOfTheFolder) {
  temporary.write("STICK/file", std::string(2 << 20, 'x'));
  EXPECT_THAT(runAgent({temporary / "STICK"}).output, HasSubstr("approximately 1.60 MB of space"));
}

TEST_F(Agent, doesNothingWhereNobodyAnswers) {
  const auto run = runAgent({makeStick("STICK")});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, AllOf(HasSubstr(kQuestion), HasSubstr("-> Later")));
  EXPECT_THAT(imagesOf("STICK"), IsEmpty());
  EXPECT_FALSE(fs::exists(listFile()));
}

TEST_F(Agent, backsUpARememberedVolumeWhateverTheAnswer) {
  const auto stick = makeStick("STICK");
  EXPECT_EQ(backUp({"--remember", stick}).status, 0);
  EXPECT_THAT(flags(),
              testing::ContainsRegex("<key>[0-9A-F]{8}-[0-9A-F]{4}-5[0-9A-F]{3}-[0-9A-F]{4}-[0-9A-F]{12}"
                                     "</key>\n\t<integer>1</integer>"));
  renameImages();
  const auto again = runAgent({"--answer", "later", stick});
  EXPECT_EQ(again.status, 0) << again.errors;
  EXPECT_THAT(again.output, AllOf(Not(HasSubstr(kQuestion)), HasSubstr("STICK: backed up to")));
  EXPECT_THAT(imagesOf("STICK"), SizeIs(2));
}

TEST_F(Agent, staysSilentAboutAnIgnoredVolume) {
  const auto stick = makeStick("STICK");
  EXPECT_EQ(runAgent({"--answer", "ignore", stick}).status, 0);
  EXPECT_THAT(flags(), HasSubstr("<integer>-1</integer>"));
  const auto again = backUp({stick});
  EXPECT_EQ(again.status, 0);
  EXPECT_THAT(again.output, IsEmpty());
  EXPECT_THAT(imagesOf("STICK"), IsEmpty());
}

TEST_F(Agent, remembersNothingWithTheAnswerLater) {
  runAgent({"--answer", "later", "--remember", makeStick("STICK")});
  EXPECT_FALSE(fs::exists(listFile()));
}

TEST_F(Agent, knowsAVolumeByItsFolderWhenItsNameChanges) {
  backUp({"--remember", makeStick("STICK")});
  fs::rename(temporary / "STICK", temporary / "RENAMED");
  EXPECT_THAT(runAgent({temporary / "RENAMED"}).output, HasSubstr("RENAMED: backed up to"));
}

TEST_F(Agent, backsUpSeveralFolders) {
  const auto run = backUp({makeStick("A"), makeStick("B"), makeStick("elsewhere/A")});
  EXPECT_EQ(run.status, 0) << run.errors;
  expectHoldsFolder(imagesOf("A").at(0), temporary / "A");
  expectHoldsFolder(imagesOf("B").at(0), temporary / "B");
  expectHoldsFolder(imagesOf("A 1").at(0), temporary / "elsewhere/A");
}

TEST_F(Agent, takesFoldersAsTheyAreTyped) {
  makeStick("größe & 'stick' $(x)");
  makeStick("working");
  const auto run = backUp({"größe & 'stick' $(x)/", "working/empty/.."});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(imagesOf("größe & 'stick' $(x)"), SizeIs(1));
  EXPECT_THAT(imagesOf("working"), SizeIs(1));
}

TEST_F(Agent, encryptsWithThePasswordOfTheFile) {
  temporary.write(
      "home/config/stashwick/settings.plist",
      "<plist><dict><key>ZQStashwickBackupEncryption</key><string>AES-256</string></dict></plist>");
  const auto run = backUp(
      {"--password-file", temporary.write("password", "open sesame\nsecond line\n"), makeStick("STICK")});
  EXPECT_EQ(run.status, 0) << run.errors;
  ASSERT_THAT(imagesOf("STICK"), SizeIs(1));
  const auto image = imagesOf("STICK")[0];
  EXPECT_THAT(shell("head -c 8 \"" + image + "\"").output, "encrcdsa");
  EXPECT_THAT(run.output + run.errors, Not(HasSubstr("sesame")));
  EXPECT_EQ(shell("grep -r sesame home").status, 1) << "the password is nowhere in clear";
}

TEST_F(Agent, saysThatAPasswordAloneEncryptsNothing) {
  const auto run =
      backUp({"--password-file", temporary.write("password", "open sesame\n"), makeStick("STICK")});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.errors, HasSubstr("backups are not encrypted"));
}

TEST_F(Agent, keepsItsFoldersToTheUser) {
  backUp({makeStick("STICK")});
  EXPECT_THAT(shell("stat -c %a \"home/data/Stashwick 3\"").output, "700\n");
}

// --- what is wrong ---

struct WrongArguments {
  const char* name;
  std::vector<std::string> arguments;
  const char* message;
  friend void PrintTo(const WrongArguments& wrong, std::ostream* out) { *out << wrong.name; }
};
constexpr auto kByName = [](const auto& test) { return std::string(test.param.name); };

class WrongUse : public Agent, public testing::WithParamInterface<WrongArguments> {};

TEST_P(WrongUse, isRefusedBeforeAnythingStarts) {
  temporary.write("file", "x");
  temporary.write("empty", "");
  temporary.write("first line empty", "\npassword\n");
  temporary.write("zeros", std::string(10, '\0'));
  temporary.write("not UTF-8", "\xFF\n");
  temporary.write("long", std::string(5000, 'x'));
  const auto run = runAgent(GetParam().arguments);
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.errors, HasSubstr(GetParam().message));
  EXPECT_THAT(run.output, IsEmpty());
  EXPECT_FALSE(fs::exists(temporary / "home"));
}

INSTANTIATE_TEST_SUITE_P(
    Agent, WrongUse,
    testing::ValuesIn<WrongArguments>(
        {{"unknownOption", {"--unknown"}, "--unknown"},
         {"unknownAnswer", {"--answer", "maybe"}, "not \"maybe\""},
         {"noAnswer", {"--answer"}, "requires an argument"},
         {"missingFolder", {"missing"}, "\"missing\": No such file or directory"},
         {"fileAsFolder", {"file"}, "\"file\": it is not a folder"},
         {"rootFolder", {"/"}, "cannot have this name"},
         {"missingPasswordFile", {"--password-file", "missing"}, "No such file"},
         {"folderAsPasswordFile", {"--password-file", "."}, "Is a directory"},
         {"emptyPasswordFile", {"--password-file", "empty"}, "is empty"},
         {"emptyFirstLineOfPasswordFile", {"--password-file", "first line empty"}, "is empty"},
         {"zerosAsPassword", {"--password-file", "zeros"}, "no UTF-8 text"},
         {"bytesAsPassword", {"--password-file", "not UTF-8"}, "no UTF-8 text"},
         {"longPassword", {"--password-file", "long"}, "too long"},
         {"missingVolumesFolder", {"--volumes-folder", "missing"}, "No such file"}}),
    kByName);

TEST_F(Agent, saysItsVersionAndUsage) {
  EXPECT_THAT(runAgent({"--version"}).output, testing::MatchesRegex("stashwick-agent [0-9.]+\n"));
  EXPECT_THAT(runAgent({"--help"}).output, HasSubstr("Usage: stashwick-agent"));
}

TEST_F(Agent, keepsAPlainFileThatStandsWhereAVolumesFolderShould) {
  temporary.write("home/data/Stashwick 3/STICK", "precious");
  const auto run = backUp({makeStick("STICK")});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, AllOf(HasSubstr("STICK: no backup was made: "), HasSubstr("Not a directory")));
  EXPECT_THAT(run.errors, HasSubstr("hdiutil"));
  EXPECT_EQ(temporary.read("home/data/Stashwick 3/STICK"), "precious");
}

TEST_F(Agent, saysThatTheStoreCannotBeWritten) {
  fs::create_directories(support());
  fs::permissions(support(), fs::perms::owner_read | fs::perms::owner_exec);
  const auto run = backUpWithoutPrivilege({makeStick("STICK")});
  fs::permissions(support(), fs::perms::owner_all);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, HasSubstr("STICK: no backup was made: "));
  EXPECT_THAT(imagesOf("STICK"), IsEmpty());
}

TEST_F(Agent, saysWhyTheStoreCannotBeMade) {
  fs::create_directories(dataHome);
  fs::permissions(dataHome, fs::perms::owner_read | fs::perms::owner_exec);
  const auto run = backUpWithoutPrivilege({makeStick("STICK")});
  fs::permissions(dataHome, fs::perms::owner_all);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("Stashwick 3\" cannot be made: Permission denied"));
}

TEST_F(Agent, leavesNothingHalfMadeOnAFullDisk) {
  ASSERT_NO_FATAL_FAILURE(takeOwnMounts());
  fs::create_directories(dataHome);
  ASSERT_EQ(::mount("tmpfs", dataHome.c_str(), "tmpfs", 0, "size=1m"), 0);
  temporary.write("home/data/Stashwick 3/STICK/earlier.dmg", "precious");
  makeStick("STICK");
  ASSERT_EQ(shell("head -c 3000000 /dev/urandom > STICK/random").status, 0);
  const auto run = backUp({temporary / "STICK"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output,
              AllOf(HasSubstr("STICK: no backup was made: "), HasSubstr("not enough free space")));
  EXPECT_THAT(imagesOf("STICK"), ElementsAre(EndsWith("/earlier.dmg")));
  EXPECT_EQ(temporary.read("home/data/Stashwick 3/STICK/earlier.dmg"), "precious");
  ::umount2(dataHome.c_str(), MNT_DETACH);
}

TEST_F(Agent, saysThatTheFolderVanishedDuringTheBackup) {
  // Large enough to be still at it: reading them takes seconds, removing them does not.
  ASSERT_EQ(shell("mkdir STICK && cd STICK && for i in $(seq 200); do truncate -s 64M $i; done").status, 0);
  const auto agent = openTerminal({"--once", "--answer", "backup", temporary / "STICK"});
  agent->expect("Backing up \"STICK\" ...");
  fs::remove_all(temporary / "STICK");
  EXPECT_EQ(agent->wait(), 1);
  EXPECT_THAT(agent->output(), HasSubstr("STICK: no backup was made: hdiutil: create failed"));
  EXPECT_THAT(imagesOf("STICK"), IsEmpty());
}

TEST_F(Agent, endsTheBackupWhenItIsTerminated) {
  ASSERT_EQ(shell("mkdir STICK && cd STICK && for i in $(seq 200); do truncate -s 64M $i; done").status, 0);
  const auto agent = openTerminal({"--once", "--answer", "backup", temporary / "STICK"});
  agent->expect("Backing up \"STICK\" ...");
  agent->signal(SIGTERM);
  EXPECT_EQ(agent->wait(), 1);
  EXPECT_THAT(imagesOf("STICK"), IsEmpty());
}

TEST_F(Agent, backsUpBesideAManifestThatIsGarbage) {
  const auto stick = makeStick("STICK");
  backUp({stick});
  renameImages();
  temporary.write("home/data/Stashwick 3/STICK/earlier.manifest", "garbage");
  const auto run = backUp({stick});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(imagesOf("STICK"), SizeIs(2));
  EXPECT_EQ(temporary.read("home/data/Stashwick 3/STICK/earlier.manifest"), "garbage");
}

struct Damaged {
  const char* name;
  std::string contents;
  friend void PrintTo(const Damaged& damaged, std::ostream* out) { *out << damaged.name; }
};

class DamagedList : public Agent, public testing::WithParamInterface<Damaged> {};

TEST_P(DamagedList, isKeptBesideTheNewOne) {
  const std::string& damaged = GetParam().contents;
  temporary.write("home/data/Stashwick 3/StashwickHelper.plist", damaged);
  const auto run = backUp({"--remember", makeStick("STICK")});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr(kQuestion));
  EXPECT_THAT(run.errors, HasSubstr("StashwickHelper.plist"));
  EXPECT_THAT(flags(), HasSubstr("<integer>1</integer>"));
  EXPECT_EQ(temporary.read("home/data/Stashwick 3/StashwickHelper.plist.damaged"), damaged);
}

INSTANTIATE_TEST_SUITE_P(
    Agent, DamagedList,
    testing::ValuesIn<Damaged>({{"garbage", "garbage"},
                                {"empty", ""},
                                {"noDictionary", "<plist><array><integer>1</integer></array></plist>"},
                                {"binaryWithoutTrailer", "bplist00\xD1\x01\x02 and no trailer"}}),
    kByName);

TEST_F(Agent, survivesAListOfTenMegabytesOfNestedArrays) {
  std::string nested = "<plist>";
  while (nested.size() < 10'000'000) nested += "<array>";
  temporary.write("home/data/Stashwick 3/StashwickHelper.plist", nested);
  EXPECT_EQ(backUp({makeStick("STICK")}).status, 0);
}

TEST_F(Agent, asksAboutAVolumeWhoseListMayNotBeRead) {
  temporary.write("home/data/Stashwick 3/StashwickHelper.plist", "<plist><dict/></plist>");
  fs::permissions(listFile(), fs::perms::none);
  const auto run = backUpWithoutPrivilege({makeStick("STICK")});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.errors, HasSubstr("Permission denied"));
  EXPECT_THAT(run.output, HasSubstr("STICK: backed up to"));
}

TEST_F(Agent, tellsOfEachFolderWhoseBackupIsMissing) {
  temporary.write("home/data/Stashwick 3/A", "");
  const auto run = backUp({makeStick("A"), makeStick("B")});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, AllOf(HasSubstr("A: no backup was made: "), HasSubstr("B: no backup was made: ")));
}

// --- a volumes folder ---

class AgentWithVolumesFolder : public Agent {
 protected:
  AgentWithVolumesFolder() { fs::create_directory(temporary / "volumes"); }

  std::unique_ptr<Program> startWaiting() {
    auto agent = startAgent({"--answer", "backup", "--volumes-folder", "volumes"});
    agent->expect("Waiting for a volume to arrive.");
    return agent;
  }
  void moveIn(const std::string& name) {
    makeStick(name);
    fs::rename(temporary / name, temporary / ("volumes/" + name));
  }
};

TEST_F(AgentWithVolumesFolder, backsUpWhatIsMovedIn) {
  const auto agent = startWaiting();
  moveIn("STICK");
  EXPECT_EQ(agent->wait(), 0) << agent->errors();
  EXPECT_THAT(agent->output(), HasSubstr("STICK: backed up to"));
  expectHoldsFolder(imagesOf("STICK").at(0), temporary / "volumes/STICK");
}

TEST_F(AgentWithVolumesFolder, backsUpAFolderThatIsMade) {
  const auto agent = startWaiting();
  fs::create_directory(temporary / "volumes/EMPTY");
  EXPECT_EQ(agent->wait(), 0) << agent->errors();
  EXPECT_THAT(imagesOf("EMPTY"), SizeIs(1));
}

TEST_F(AgentWithVolumesFolder, asksNothingAboutWhatWasThereBefore) {
  moveIn("OLD");
  const auto agent = startWaiting();
  moveIn("NEW");
  EXPECT_EQ(agent->wait(), 0) << agent->errors();
  EXPECT_THAT(agent->output(), Not(HasSubstr("Backup \"OLD\"?")));
}

TEST_F(AgentWithVolumesFolder, asksNothingAboutWhatASideFileCallsNoUSBStick) {
  temporary.write("volumes/DISK.plist",
                  "<plist><dict><key>DADeviceProtocol</key><string>SATA</string></dict></plist>");
  temporary.write("volumes/INNER.plist", "<plist><dict><key>DADeviceInternal</key><true/></dict></plist>");
  const auto agent = startWaiting();
  moveIn("DISK");
  moveIn("INNER");
  moveIn("STICK");
  EXPECT_EQ(agent->wait(), 0) << agent->errors();
  EXPECT_THAT(agent->output(), AllOf(HasSubstr(kQuestion), Not(HasSubstr("DISK")), Not(HasSubstr("INNER"))));
}

// --- on a terminal ---

TEST_F(Agent, showsItsMenuAndQuitsFromIt) {
  const auto agent = openTerminal({});
  agent->expect("     Last Backup: Never\r\n");
  agent->expect("     Backup ...\r\n        No Devices Connected\r\n");
  agent->expect("  1) Automatic Backups\r\n");
  agent->expect("  2) Quit Stashwick\r\n");
  agent->type("2\n");
  EXPECT_EQ(agent->wait(), 0);
}

TEST_F(Agent, asksOnTheTerminalAndBacksUp) {
  const auto stick = makeStick("STICK");
  const auto agent = openTerminal({stick});
  agent->expect("\a");
  agent->expect(kQuestion);
  agent->expect("  4) [ ] Backup this volume automatically in the future\r\n");
  agent->type("4\n");
  agent->expect("  4) [x] Backup this volume automatically in the future\r\n");
  agent->type("1\n");
  agent->expect("Backing up \"STICK\" ...");
  agent->expect("Last Backup: Today at");
  agent->expect("STICK: backed up to");
  agent->type("3\n");
  EXPECT_EQ(agent->wait(), 0);
  EXPECT_THAT(flags(), HasSubstr("<integer>1</integer>"));
  expectHoldsFolder(imagesOf("STICK").at(0), stick);
}

TEST_F(Agent, asksAgainFromTheMenu) {
  const auto agent = openTerminal({makeStick("STICK")});
  agent->expect(kQuestion);
  agent->type("i\n");
  agent->expect("  1)    Backup \"STICK\" now ...");
  agent->expect("Type a number and press Enter.");
  agent->type("1\n");
  agent->expect(kQuestion);
  agent->expect("Enter alone means");
  agent->type("\n");
  agent->expect("STICK: backed up to");
  agent->type("3\n");
  EXPECT_EQ(agent->wait(), 0);
}

TEST_F(Agent, leavesATerminalWhenItIsToRunOnce) {
  const auto agent = openTerminal({"--once", makeStick("STICK")});
  agent->expect(kQuestion);
  agent->expect("Enter alone means");
  agent->type("b\n");
  agent->expect("STICK: backed up to");
  EXPECT_EQ(agent->wait(), 0);
}

TEST_F(Agent, showsTheMenusSwitchAsItIs) {
  {
    const auto agent = openTerminal({});
    agent->expect("  1) Automatic Backups");
    agent->expect("Type a number");
    agent->type("1\n2\n");
    EXPECT_EQ(agent->wait(), 0);
  }
  const auto agent = openTerminal({});
  agent->expect("  1) [x] Automatic Backups");
}

TEST_F(Agent, takesItsAnswerFromTheCommandLineOnATerminalToo) {
  const auto agent = openTerminal({"--answer", "backup", "--once", makeStick("STICK")});
  agent->expect("-> Backup");
  EXPECT_EQ(agent->wait(), 0);
}

TEST_F(Agent, quitsWithCtrlCAndCtrlDFromTheMenuAndFromAQuestion) {
  for (const char* key : {"\x03", "\x04"}) {
    const auto inMenu = openTerminal({});
    inMenu->expect("Type a number");
    inMenu->type(key);
    EXPECT_EQ(inMenu->wait(), 0);
    const auto inQuestion = openTerminal({makeStick("STICK")});
    inQuestion->expect("Enter alone means");
    inQuestion->type(key);
    EXPECT_EQ(inQuestion->wait(), 0);
    fs::remove_all(temporary / "STICK");
  }
  EXPECT_THAT(imagesOf("STICK"), IsEmpty());
  EXPECT_FALSE(fs::exists(listFile()));
}

TEST_F(Agent, leavesNoCoreFileThatCouldHoldAPassword) {
  const auto agent = openTerminal({});
  agent->expect("Type a number");
  rlimit limit{1, 1};
  ASSERT_EQ(::prlimit(agent->process(), RLIMIT_CORE, nullptr, &limit), 0);
  EXPECT_EQ(limit.rlim_cur, 0U);
}

TEST_F(Agent, showsVolumesThatComeAndGo) {
  fs::create_directory(temporary / "volumes");
  const auto agent = openTerminal({"--answer", "later", "--volumes-folder", "volumes"});
  agent->expect("No Devices Connected");
  makeStick("STICK");
  fs::rename(temporary / "STICK", temporary / "volumes/STICK");
  agent->expect("Backup \"STICK\" now ...");
  fs::rename(temporary / "volumes/STICK", temporary / "STICK");
  agent->expect("No Devices Connected");
}

}  // namespace
