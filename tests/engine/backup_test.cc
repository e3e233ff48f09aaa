// A backup: its tool run, the password, the manifest, the name, and the erasing afterwards.

#include <atomic>
#include <tuple>

#include "tests/engine/engine_test.h"

namespace tests::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

using namespace std::string_literals;

using Backup = EngineTest;
using BackupPassword = EngineTest;
using BackupManifest = EngineTest;
using BackupName = EngineTest;
using EraseAfterBackup = EngineTest;

constexpr const char* kEncryptionKey = "ZQStashwickBackupEncryption";

TEST_F(Backup, runsTheImageToolOnTheWholeVolume) {
  backUp();
  ASSERT_EQ(world.tools.runs().size(), 1);
  const auto run = world.tools.runs()[0];
  EXPECT_EQ(run.launchPath, "/usr/bin/hdiutil");
  EXPECT_THAT(run.arguments, ElementsAre("create", "-fs", "HFS+", "-volname", "STICK-Backup", "-srcfolder",
                                         "/Volumes/STICK", path(".dmg"), "-plist"));
  EXPECT_EQ(run.capture, Capture::bothOutputs);
  EXPECT_EQ(run.standardInput, std::nullopt);
}

TEST_F(Backup, makesTheFolderOfTheVolume) {
  ASSERT_FALSE(world.files.fileExists(kStickFolder));
  backUp();
  EXPECT_TRUE(world.files.fileExists(kStickFolder));
}

TEST_F(Backup, debugModeEndsTheArgumentsWithVerboseAndLogsThemBeforeTheLaunch) {
  Strings loggedAtLaunch;
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    loggedAtLaunch = world.log.lines();
    return std::string();
  });
  engine->setDebugMode(true);
  backUp();
  EXPECT_THAT(world.tools.runs().at(0).arguments,
              ElementsAre("create", "-fs", "HFS+", "-volname", "STICK-Backup", "-srcfolder", "/Volumes/STICK",
                          path(".dmg"), "-plist", "-verbose"));
  EXPECT_THAT(loggedAtLaunch, ElementsAre("[DEBUG] _createDiscImageWithOperation: - NSTask Arguments: (\n"
                                          "    create,\n"
                                          "    \"-fs\",\n"
                                          "    \"HFS+\",\n"
                                          "    \"-volname\",\n"
                                          "    \"STICK-Backup\",\n"
                                          "    \"-srcfolder\",\n"
                                          "    /Volumes/STICK,\n"
                                          "    \"" +
                                          path(".dmg") +
                                          "\",\n"
                                          "    \"-plist\",\n"
                                          "    \"-verbose\"\n"
                                          ")"));
  EXPECT_EQ(world.log.lines(), loggedAtLaunch);
}

TEST_F(Backup, nothingIsLoggedWithoutDebugMode) {
  backUp();
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(BackupPassword, andAnEncryptionNameEncryptTheImage) {
  storePassword(world, "p\xC3\xA4ss");
  world.defaults.set("AES-256", kEncryptionKey);
  backUp();
  const auto run = world.tools.runs().at(0);
  EXPECT_THAT(run.arguments,
              ElementsAre("create", "-fs", "HFS+", "-volname", "STICK-Backup", "-srcfolder", "/Volumes/STICK",
                          path(".dmg"), "-encryption", "AES-256", "-stdinpass", "-plist"));
  EXPECT_EQ(run.standardInput, "p\xC3\xA4ss\0\n"s);
}

TEST_F(BackupPassword, encryptsInDebugModeToo) {
  storePassword(world, "secret");
  world.defaults.set("AES-128", kEncryptionKey);
  engine->setDebugMode(true);
  backUp();
  const auto arguments = world.tools.runs().at(0).arguments;
  EXPECT_EQ(Strings(arguments.end() - 5, arguments.end()),
            (Strings{"-encryption", "AES-128", "-stdinpass", "-plist", "-verbose"}));
  for (const auto& line : world.log.lines()) EXPECT_THAT(line, Not(::testing::HasSubstr("secret")));
}

TEST_F(BackupPassword, withoutAnEncryptionNameIsWrittenToAPipeThatNoToolReads) {
  storePassword(world, "secret");
  backUp();
  const auto run = world.tools.runs().at(0);
  EXPECT_FALSE(run.hasArgument("-encryption"));
  EXPECT_FALSE(run.hasArgument("-stdinpass"));
  EXPECT_EQ(run.standardInput, std::nullopt);
  ASSERT_EQ(world.tools.pipes().size(), 1);
  EXPECT_EQ(world.tools.pipes()[0].bytes, "secret\0\n"s);
  EXPECT_TRUE(world.tools.pipes()[0].writingEndClosed);
  EXPECT_FALSE(world.tools.pipes()[0].attached);
}

TEST_F(BackupPassword, missingReadsAsNullInThePipeEvenWithoutEncryption) {
  backUp();
  ASSERT_EQ(world.tools.pipes().size(), 1);
  EXPECT_EQ(world.tools.pipes()[0].bytes, "(null)\0\n"s);
  EXPECT_TRUE(world.tools.pipes()[0].writingEndClosed);
}

TEST_F(BackupPassword, missingMakesTheBackupUnencryptedEvenWithAnEncryptionName) {
  world.defaults.set("AES-256", kEncryptionKey);
  backUp();
  const auto run = world.tools.runs().at(0);
  EXPECT_EQ(run.arguments.back(), "-plist");
  EXPECT_FALSE(run.hasArgument("-encryption"));
  EXPECT_EQ(run.standardInput, std::nullopt);
  EXPECT_THAT(listener->names(), ::testing::Contains("finish"));
}

TEST_F(BackupPassword, thatIsEmptyCountsAsMissing) {
  storePassword(world, "");
  world.defaults.set("AES-256", kEncryptionKey);
  backUp();
  EXPECT_FALSE(world.tools.runs().at(0).hasArgument("-encryption"));
  EXPECT_EQ(world.tools.pipes().at(0).bytes, "(null)\0\n"s);
}

TEST_F(BackupPassword, withAnEmptyEncryptionNamePassesTheEmptyName) {
  storePassword(world, "secret");
  world.defaults.set("", kEncryptionKey);
  backUp();
  const auto run = world.tools.runs().at(0);
  EXPECT_EQ(Strings(run.arguments.end() - 4, run.arguments.end()),
            (Strings{"-encryption", "", "-stdinpass", "-plist"}));
  EXPECT_EQ(run.standardInput, "secret\0\n"s);
}

TEST_F(BackupPassword, isWrittenBeforeTheToolStarts) {
  bool written = false;
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    const auto pipes = world.tools.pipes();
    written = pipes.size() == 1 && !pipes[0].bytes.empty() && pipes[0].writingEndClosed;
    return std::string();
  });
  backUp();
  EXPECT_TRUE(written);
}

TEST_F(BackupPassword, isThatOfTheServiceAndTheUsersFullName) {
  world.keychain.secItemAdd({.service = "Stashwick 3", .account = "Somebody Else"}, base::Secret("theirs"));
  world.keychain.secItemAdd({.service = "Stashwick", .account = "Pat Example"}, base::Secret("another"));
  world.keychain.secItemAdd({.service = "Stashwick 3", .account = "Pat Example"}, base::Secret("ours"));
  backUp();
  EXPECT_EQ(world.tools.pipes().at(0).bytes, "ours\0\n"s);
}

TEST_F(BackupManifest, standsBesideTheImageUnderItsName) {
  backUp();
  EXPECT_TRUE(world.files.fileExists(path(".manifest")));
  EXPECT_TRUE(world.files.fileExists(path(".dmg")));
}

TEST_F(BackupManifest, isWrittenBeforeTheImage) {
  bool manifest = false;
  bool image = true;
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    manifest = world.files.fileExists(path(".manifest"));
    image = world.files.fileExists(path(".dmg"));
    return std::string();
  });
  backUp();
  EXPECT_TRUE(manifest);
  EXPECT_FALSE(image);
}

TEST_F(BackupManifest, holdsTheParametersAndTheScanButNoPassword) {
  storePassword(world, "secret");
  world.defaults.set("AES-256", kEncryptionKey);
  backUp();
  const auto manifest = manifestAt(world, path(".manifest"));
  ASSERT_NE(manifest, nullptr);
  EXPECT_EQ(manifest->format(), "HFS+");
  EXPECT_EQ(manifest->encryption(), "AES-256");
  EXPECT_EQ(manifest->password(), nullptr);
  EXPECT_THAT(world.files.read(path(".manifest")).value(), Not(::testing::HasSubstr("secret")));
  ASSERT_NE(manifest->result(), nullptr);
  EXPECT_EQ(manifest->result()->path(), (base::FileURL{"/Volumes/STICK", true}));
}

TEST_F(BackupManifest, ofAnUnencryptedBackupHasNoEncryption) {
  backUp();
  const auto manifest = manifestAt(world, path(".manifest"));
  ASSERT_NE(manifest, nullptr);
  EXPECT_EQ(manifest->encryption(), std::nullopt);
}

TEST_F(BackupManifest, keepsAnEncryptionNameThatIsEmpty) {
  world.defaults.set("", kEncryptionKey);
  backUp();
  const auto manifest = manifestAt(world, path(".manifest"));
  ASSERT_NE(manifest, nullptr);
  EXPECT_EQ(manifest->encryption(), "");
}

TEST_F(BackupManifest, waitsForTheScanAndHoldsAllOfIt) {
  world.files.holdEnumerationAt("/Volumes/STICK/b");
  startBackup();
  world.files.waitUntilEnumerationIsHeld();
  // Meanwhile another engine's backup goes all the way: time enough for one that does not wait.
  world.files.addVolume("OTHER");
  ZQStashwick other(world.host());
  other.setBackupQuery(scanOf("OTHER"));
  other.operationQueue()->waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(world.files.fileExists(path(".manifest")));
  world.files.releaseEnumeration();
  settle();
  const auto manifest = manifestAt(world, path(".manifest"));
  ASSERT_NE(manifest, nullptr);
  const auto scan = manifest->result();
  EXPECT_TRUE(scan->ready());
  EXPECT_THAT(*scan->files(), ElementsAre(base::FileURL{"/Volumes/STICK/a", false},
                                          base::FileURL{"/Volumes/STICK/b", false}));
}

TEST_F(BackupManifest, waitEndsWhenTheVolumeIsUnplugged) {
  world.files.holdEnumerationAt("/Volumes/STICK/b");
  startBackup();
  world.files.waitUntilEnumerationIsHeld();
  world.files.removeVolume("STICK");
  world.files.releaseEnumeration();
  settle();
  EXPECT_EQ(steps(), Strings{"hdiutil create"});
  const auto manifest = manifestAt(world, path(".manifest"));
  ASSERT_NE(manifest, nullptr);
  EXPECT_THAT(*manifest->result()->files(), ElementsAre(base::FileURL{"/Volumes/STICK/a", false}));
}

TEST_F(BackupManifest, staysWhenTheImageFails) {
  failSilently("hdiutil: create failed - No space left on device\n");
  EXPECT_TRUE(world.files.fileExists(path(".manifest")));
  EXPECT_FALSE(world.files.fileExists(path(".dmg")));
}

TEST_F(BackupManifest, thatCannotBeWrittenDoesNotStopTheBackup) {
  world.files.write(kStickFolder, "a plain file where the folder should be");
  backUp();
  EXPECT_EQ(steps(), Strings{"hdiutil create"});
  EXPECT_THAT(listener->names(), ::testing::Contains("finish"));
}

TEST_F(BackupName, isOneForManifestAndImageAcrossASecondBoundary) {
  int asked = 0;
  world.dates.mediumDatesReadAs([&](base::Date date, const std::string&) {
    world.clock.advanceTo({date.secondsSinceReferenceDate + 1});
    return "backup " + std::to_string(++asked);
  });
  backUp();
  const std::string folder = kStickFolder;
  EXPECT_TRUE(world.files.fileExists(folder + "/backup 1.manifest"));
  EXPECT_TRUE(world.files.fileExists(folder + "/backup 1.dmg"));
  EXPECT_EQ(asked, 1);
}

TEST_F(BackupName, isTheMediumDateAndTimeInTheUsersFirstLanguage) {
  std::vector<std::pair<base::Date, std::string>> asked;
  world.dates.setPreferredLanguages({"pt-BR", "en"});
  world.dates.mediumDatesReadAs([&](base::Date date, const std::string& language) {
    asked.emplace_back(date, language);
    return "15 de nov. de 2026 14:05:09"s;
  });
  backUp();
  EXPECT_THAT(asked, ElementsAre(std::pair(platform::fake::Clock::kStart, "pt-BR"s)));
  EXPECT_TRUE(world.files.fileExists(std::string(kStickFolder) + "/15 de nov. de 2026 14:05:09.dmg"));
}

TEST_F(BackupName, isUsedUnchanged) {
  world.dates.mediumDatesReadAs(
      [](base::Date, const std::string&) { return "Nov 15, 2026, 2:05:09\xE2\x80\xAFPM"s; });
  backUp();
  EXPECT_EQ(imageOf(world.tools.runs().at(0)),
            std::string(kStickFolder) + "/Nov 15, 2026, 2:05:09\xE2\x80\xAFPM.dmg");
}

TEST_F(EraseAfterBackup, deletesTheVolumesContentsAfterTheToolRunAndOnlyOnce) {
  engine->setErasesDataAfterBackup(true);
  backUp();
  EXPECT_EQ(steps(), (Strings{"hdiutil create", "rm"}));
  const auto erase = world.tools.runs()[1];
  EXPECT_EQ(erase.launchPath, "/bin/rm");
  EXPECT_THAT(erase.arguments, ElementsAre("-rf", "/Volumes/STICK"));
  EXPECT_EQ(erase.capture, Capture::none);
  EXPECT_FALSE(engine->erasesDataAfterBackup());
  backUp();
  EXPECT_EQ(steps(), (Strings{"hdiutil create", "rm", "hdiutil create"}));
}

TEST_F(EraseAfterBackup, happensInTheStepOfTheImage) {
  std::size_t queued = 0;
  world.tools.whenToolRuns("/bin/rm", [&](const auto&) {
    queued = engine->operationQueue()->operationCount();
    return std::string();
  });
  engine->setErasesDataAfterBackup(true);
  backUp();
  EXPECT_EQ(queued, 1);
  EXPECT_THAT(listener->names(), ::testing::Contains("finish"));
}

TEST_F(EraseAfterBackup, happensEvenWhenTheImageFailed) {
  backUp();
  engine->setErasesDataAfterBackup(true);
  failSilently("hdiutil: create failed - No space left on device\n");
  EXPECT_EQ(steps(), (Strings{"hdiutil create", "hdiutil create", "rm"}));
  EXPECT_THAT(world.tools.runs()[2].arguments, ElementsAre("-rf", "/Volumes/STICK"));
  EXPECT_FALSE(engine->erasesDataAfterBackup());
}

TEST_F(EraseAfterBackup, withoutAnyStoredBackupNamesNoVolume) {
  engine->setErasesDataAfterBackup(true);
  failSilently("hdiutil: create failed - No space left on device\n");
  EXPECT_THAT(world.tools.runs().at(1).arguments, ElementsAre("-rf", "/Volumes/(null)"));
}

TEST_F(EraseAfterBackup, isNotDoneUnasked) {
  backUp();
  EXPECT_THAT(world.tools.runsOf("/bin/rm"), IsEmpty());
}

TEST(StatusText, isTheFirstStringElement) {
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("<array><string>/path/x.dmg</string><string>y</string>"),
            "/path/x.dmg");
}

TEST(StatusText, isAbsentWithoutAStringElement) {
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("hdiutil: create failed"), std::nullopt);
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("<String>x</String>"), std::nullopt);
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("<string/>"), std::nullopt);
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML(""), std::nullopt);
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML(std::nullopt), std::nullopt);
}

TEST(StatusText, isAbsentForAnEmptyElement) {
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("<string></string><string>x</string>"), std::nullopt);
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("<string> \n\t</string>"), std::nullopt);
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("<string>"), std::nullopt);
}

TEST(StatusText, neverBeginsWithWhiteSpaceAndKeepsTheRest) {
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("\n <string>\n\t a  b \n</string>"), "a  b \n");
}

TEST(StatusText, ofAnElementWithoutItsEndReachesToTheEndOfTheText) {
  EXPECT_EQ(ZQStashwick::_statusMessageFromXML("<string>create failed\n"), "create failed\n");
}

}  // namespace
}  // namespace tests::engine
