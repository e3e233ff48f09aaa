// The question about a volume, the automatic-backup list, the estimate, and the start or postponing of a
// backup.

#include "store/file_size.h"
#include "tests/app/agent_test.h"

namespace tests::app {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using base::PropertyList;
using Dictionary = base::PropertyList::Dictionary;

using Question = AgentTest;
using QuestionAnswer = AgentTest;
using SizeEstimate = AgentTest;
using BackupList = AgentTest;
using PostponedBackup = AgentTest;
using BackupStart = AgentTest;

TEST_F(Question, readsLikeThis) {
  launch();
  attachAndAnswer("STICK", "Later");
  ASSERT_EQ(world.desktop.alerts().size(), 1);
  const auto shown = world.desktop.alerts()[0];
  EXPECT_TRUE(shown.onMainThread);
  EXPECT_EQ(shown.alert.messageText, "Backup \"STICK\"?");
  EXPECT_EQ(shown.alert.informativeText,
            "This allows you to restore the contents of this volume at any time in the future. The backup "
            "will take up approximately 762.94 MB of space on your hard drive.");
  EXPECT_THAT(shown.alert.buttons, ElementsAre("Backup", "Later", "Ignore Volume"));
  EXPECT_TRUE(shown.alert.showsSuppressionButton);
  EXPECT_EQ(shown.alert.suppressionTitle, "Backup this volume automatically in the future");
  EXPECT_FALSE(shown.alert.suppressed);
}

TEST_F(Question, carriesTheIconOfTheDevice) {
  launch();
  attachAndAnswer("STICK", "Later");
  const auto icon = world.desktop.alerts().at(0).alert.icon;
  EXPECT_EQ(icon, agent->devices().at(0)->icon());
  const auto* shown = dynamic_cast<const platform::fake::Icon*>(icon.get());
  ASSERT_NE(shown, nullptr);
  EXPECT_EQ(shown->path, "/Volumes/STICK");
}

TEST_F(Question, comesAfterTheApplicationIsActivatedAndTheSoundIsPlayed) {
  launch();
  int activations = 0;
  Lines sounds;
  world.desktop.whileAlertIsOpen([&] {
    activations = world.desktop.activations();
    sounds = world.desktop.soundsPlayed();
  });
  attachAndAnswer("STICK", "Later");
  EXPECT_EQ(activations, 1);
  EXPECT_THAT(sounds, ElementsAre("Alert.wav"));
}

TEST_F(Question, textsComeFromTheStringTable) {
  world.bundle.setLocalizedString("Backup \"%@\"?", "\"%@\" sichern?");
  world.bundle.setLocalizedString(
      "This allows you to restore the contents of this volume at any time in the future. The backup will "
      "take up approximately %@ of space on your hard drive.",
      "Etwa %@.");
  world.bundle.setLocalizedString("Backup", "Sichern");
  world.bundle.setLocalizedString("Later", "Später");
  world.bundle.setLocalizedString("Ignore Volume", "Ignorieren");
  world.bundle.setLocalizedString("Backup this volume automatically in the future", "Künftig automatisch");
  launch();
  attachAndAnswer("STICK", "Später");
  const auto alert = world.desktop.alerts().at(0).alert;
  EXPECT_EQ(alert.messageText, "\"STICK\" sichern?");
  EXPECT_EQ(alert.informativeText, "Etwa 762.94 MB.");
  EXPECT_THAT(alert.buttons, ElementsAre("Sichern", "Später", "Ignorieren"));
  EXPECT_EQ(alert.suppressionTitle, "Künftig automatisch");
}

TEST_F(Question, percentSignInANameStaysAPercentSign) {
  launch();
  attachAndAnswer("100%@", "Later");
  EXPECT_EQ(world.desktop.alerts().at(0).alert.messageText, "Backup \"100%@\"?");
}

TEST_F(Question, holdsArrivalsAndDeparturesUpUntilItIsAnswered) {
  launch();
  const auto first = attachAndAnswer("A", "Later");
  std::optional<Lines> meanwhile;
  world.desktop.whileAlertIsOpen([&] {
    if (meanwhile) return;
    world.disks.pull(first);
    world.disks.plugUSB("C");
    world.runMainQueue();
    meanwhile = deviceNames();
  });
  for (int i = 0; i < 2; ++i) world.desktop.answerNextAlert("Later");
  attach("B");
  EXPECT_EQ(meanwhile, (Lines{"A", "B"}));
  EXPECT_THAT(deviceNames(), ElementsAre("B", "C"));
  EXPECT_EQ(world.desktop.alerts().size(), 3);
}

// What a flag in the list leads to: on mount, and from the menu.
struct Decision {
  const char* name;
  std::optional<PropertyList> flag;
  enum OnMount { asks, backsUp, ignores } onMount;
};

void PrintTo(const Decision& decision, std::ostream* out) { *out << decision.name; }

class FlagDecision : public AgentTest, public ::testing::WithParamInterface<Decision> {
 protected:
  ports::DiskDescription stick = world.disks.usbPartition("STICK");

  void SetUp() override {
    if (GetParam().flag) writeList({{UDID(stick), *GetParam().flag}});
  }
  static int codeOf(Decision::OnMount onMount) {
    return onMount == Decision::backsUp ? 1 : onMount == Decision::ignores ? -1 : 0;
  }
};

TEST_P(FlagDecision, onMount) {
  launch();
  const bool asks = GetParam().onMount == Decision::asks;
  if (asks) world.desktop.answerNextAlert("Later");
  attach(stick);
  finish();
  EXPECT_EQ(world.desktop.alerts().size(), asks ? 1 : 0);
  EXPECT_EQ(world.desktop.soundsPlayed().size(), asks ? 1 : 0);
  EXPECT_EQ(world.desktop.activations(), asks ? 1 : 0);
  EXPECT_EQ(imagesRun(), GetParam().onMount == Decision::backsUp ? 1 : 0);
  EXPECT_THAT(deviceNames(), ElementsAre("STICK"));
}

TEST_P(FlagDecision, fromTheMenuAsksAlwaysAndTicksTheBoxForAnAutomaticVolume) {
  world.disks.plug(stick);
  world.letSecondsPass(kGrain);
  launch();
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  finish();
  ASSERT_EQ(world.desktop.alerts().size(), 1);
  EXPECT_EQ(world.desktop.alerts()[0].alert.suppressed, GetParam().onMount == Decision::backsUp);
  EXPECT_THAT(world.desktop.soundsPlayed(), ElementsAre("Alert.wav"));
  EXPECT_EQ(world.desktop.activations(), 1);
  EXPECT_EQ(imagesRun(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    List, FlagDecision,
    ::testing::Values(
        Decision{"none", std::nullopt, Decision::asks}, Decision{"zero", PropertyList(0), Decision::asks},
        Decision{"one", PropertyList(1), Decision::backsUp},
        Decision{"minusOne", PropertyList(-1), Decision::ignores},
        Decision{"two", PropertyList(2), Decision::asks},
        Decision{"minusTwo", PropertyList(-2), Decision::asks},
        Decision{"trueBoolean", PropertyList(true), Decision::backsUp},
        Decision{"falseBoolean", PropertyList(false), Decision::asks},
        Decision{"realOne", PropertyList(1.9), Decision::backsUp},
        Decision{"realMinusOne", PropertyList(-1.9), Decision::ignores},
        Decision{"realBeyondAllIntegers", PropertyList(1e300), Decision::asks},
        // Truncated to 32 bits.
        Decision{"oneAboveThirtyTwoBits", PropertyList(std::int64_t{0x1'0000'0001}), Decision::backsUp},
        Decision{"thirtyTwoBitsOfOnes", PropertyList(std::int64_t{0xFFFF'FFFF}), Decision::ignores},
        Decision{"textOne", PropertyList("1"), Decision::backsUp},
        Decision{"textMinusOne", PropertyList("-1"), Decision::ignores},
        Decision{"textWithBlankAndSign", PropertyList(" +1 time"), Decision::backsUp},
        Decision{"textWithTwoSigns", PropertyList("+-1"), Decision::asks},
        Decision{"textWithoutNumber", PropertyList("always"), Decision::asks},
        Decision{"emptyText", PropertyList(""), Decision::asks},
        Decision{"array", PropertyList(PropertyList::Array{1}), Decision::asks},
        Decision{"dictionary", PropertyList(Dictionary{}), Decision::asks}),
    [](const auto& test) { return test.param.name; });

// Every answer, with the box ticked and not, for every flag that a volume can have.
struct Answer {
  const char* name;
  const char* button;
  bool ticked;
  std::optional<int> flagBefore;
  std::optional<int> flagAfter;
  bool backsUp;
};

void PrintTo(const Answer& answer, std::ostream* out) { *out << answer.name; }

class AnswerStored : public AgentTest, public ::testing::WithParamInterface<Answer> {};

TEST_P(AnswerStored, inTheList) {
  const auto& answer = GetParam();
  const auto stick = world.disks.usbPartition("STICK");
  const auto listWith = [&](std::optional<int> flag) {
    return flag ? Dictionary{{UDID(stick), *flag}} : Dictionary{};
  };
  if (answer.flagBefore) writeList(listWith(answer.flagBefore));
  world.disks.plug(stick);
  world.letSecondsPass(kGrain);
  launch();
  world.desktop.answerNextAlert(answer.button, answer.ticked);
  world.desktop.click("Backup \"STICK\" now ...");
  finish();
  EXPECT_EQ(list(), listWith(answer.flagAfter));
  EXPECT_EQ(imagesRun(), answer.backsUp ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Button, AnswerStored,
    ::testing::Values(Answer{"backupTicked", "Backup", true, {}, 1, true},
                      Answer{"backupUnticked", "Backup", false, {}, {}, true},
                      Answer{"backupTickedForAnAutomaticVolume", "Backup", true, 1, 1, true},
                      Answer{"backupUntickedKeepsAnAutomaticVolume", "Backup", false, 1, 1, true},
                      Answer{"backupTickedForAnIgnoredVolume", "Backup", true, -1, 1, true},
                      Answer{"backupUntickedKeepsAnIgnoredVolume", "Backup", false, -1, -1, true},
                      Answer{"laterTickedStoresNothing", "Later", true, {}, {}, false},
                      Answer{"laterUnticked", "Later", false, {}, {}, false},
                      Answer{"laterKeepsAnAutomaticVolume", "Later", false, 1, 1, false},
                      Answer{"laterTickedKeepsAnIgnoredVolume", "Later", true, -1, -1, false},
                      Answer{"ignoreTicked", "Ignore Volume", true, {}, -1, false},
                      Answer{"ignoreUnticked", "Ignore Volume", false, {}, -1, false},
                      Answer{"ignoreTurnsAnAutomaticVolume", "Ignore Volume", true, 1, -1, false},
                      Answer{"ignoreKeepsAnIgnoredVolume", "Ignore Volume", false, -1, -1, false}),
    [](const auto& test) { return test.param.name; });

TEST_F(QuestionAnswer, thatIsNoButtonDoesNothing) {
  launch();
  for (const int code : {0, 999, 1003, -1000}) {
    world.desktop.answerAlertsWith(
        [code](const auto&) { return ports::AlertAnswer{.returnCode = code, .suppressed = true}; });
    attach("STICK" + std::to_string(code + 1000));
  }
  finish();
  EXPECT_EQ(world.desktop.alerts().size(), 4);
  EXPECT_FALSE(world.files.fileExists(kList));
  EXPECT_EQ(imagesRun(), 0);
}

TEST_F(QuestionAnswer, ignoredVolumeMountsSilentlyNextTimeAndIsStillAskedAboutFromTheMenu) {
  launch();
  const auto stick = world.disks.usbPartition("STICK");
  world.desktop.answerNextAlert("Ignore Volume");
  pull(attach(stick));
  attach(stick);
  EXPECT_EQ(world.desktop.alerts().size(), 1);
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(world.desktop.alerts().size(), 2);
}

TEST_F(QuestionAnswer, rememberedBackupRunsNextTimeWithoutSoundOrQuestion) {
  launch();
  const auto stick = world.disks.usbPartition("STICK");
  world.desktop.answerNextAlert("Backup", true);
  const auto disk = attach(stick);
  finish();
  pull(disk);
  attach(stick);
  finish();
  EXPECT_EQ(imagesRun(), 2);
  EXPECT_EQ(world.desktop.alerts().size(), 1);
  EXPECT_EQ(world.desktop.soundsPlayed().size(), 1);
}

TEST_F(QuestionAnswer, isStoredBeforeTheBackupStarts) {
  launch();
  Dictionary atStart;
  world.tools.whenToolRuns(kImageTool, [&](const auto&) {
    atStart = list();
    return std::string();
  });
  attachAndAnswer("STICK", "Backup", true);
  EXPECT_EQ(atStart.size(), 1);
}

std::string estimateIn(const platform::fake::World& world) {
  const std::string text = world.desktop.alerts().back().alert.informativeText;
  const std::string before = "approximately ";
  const auto start = text.find(before) + before.size();
  return text.substr(start, text.find(" of space") - start);
}

TEST_F(SizeEstimate, isFourFifthsOfTheUsedSpace) {
  launch();
  world.desktop.answerNextAlert("Later");
  attach(with(world.disks.usbPartition("STICK"), ports::kDADiskDescriptionMediaSizeKey, 2'000'000'000));
  world.files.setFreeSize("/Volumes/STICK", 1'000'000'000);
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(estimateIn(world), FileSize::stringFromFileSize(800'000'000));
}

TEST_F(SizeEstimate, isComputedInSinglePrecision) {
  launch();
  world.desktop.answerNextAlert("Later");
  // 16,777,219 bytes are held as 16,777,220: four bytes more than are free, four fifths of which are three.
  attach(with(world.disks.usbPartition("STICK"), ports::kDADiskDescriptionMediaSizeKey, 16'777'219));
  world.files.setFreeSize("/Volumes/STICK", 16'777'216);
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(estimateIn(world), "3 bytes");
}

TEST_F(SizeEstimate, readsTheFreeSizeInSinglePrecisionToo) {
  launch();
  world.desktop.answerNextAlert("Later");
  attach(with(world.disks.usbPartition("STICK"), ports::kDADiskDescriptionMediaSizeKey, 16'777'220));
  world.files.setFreeSize("/Volumes/STICK", 16'777'217);  // held as 16,777,216
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(estimateIn(world), "3 bytes");
}

TEST_F(SizeEstimate, multipliesInSinglePrecisionToo) {
  launch();
  world.desktop.answerNextAlert("Later");
  attach(with(world.disks.usbPartition("STICK"), ports::kDADiskDescriptionMediaSizeKey, 655'576'256));
  world.files.setFreeSize("/Volumes/STICK", 0);
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(estimateIn(world), "500.17 MB");  // 524,461,024 bytes; in double precision 524,461,004
}

TEST_F(SizeEstimate, wrapsAroundWhenMoreIsFreeThanTheVolumeHolds) {
  launch();
  world.desktop.answerNextAlert("Later");
  attach("STICK");
  world.files.setFreeSize("/Volumes/STICK", 12'000'000'000);
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(estimateIn(world), FileSize::stringFromFileSize(0 - std::uint64_t{8'000'000'000}));
}

TEST_F(SizeEstimate, belowAllSignedNumbersIsTheSmallestOfThemWrappedAround) {
  launch();
  world.desktop.answerNextAlert("Later");
  attach("STICK");
  world.files.setFreeSize("/Volumes/STICK", UINT64_MAX);
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(estimateIn(world), FileSize::stringFromFileSize(std::uint64_t{1} << 63));
}

TEST_F(SizeEstimate, takesNothingAsFreeWhenTheVolumeHasNoAttributes) {
  launch();
  world.desktop.answerNextAlert("Later");
  attach(with(world.disks.usbPartition("STICK"), ports::kDADiskDescriptionVolumeMountableKey, false));
  ASSERT_FALSE(world.files.fileExists("/Volumes/STICK"));
  EXPECT_EQ(estimateIn(world), FileSize::stringFromFileSize(1'600'000'000));
}

TEST_F(SizeEstimate, ofAnEmptyVolumeIsNothing) {
  launch();
  world.desktop.answerNextAlert("Later");
  attach("STICK");
  world.files.setFreeSize("/Volumes/STICK", 2'000'000'000);
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(estimateIn(world), "0 bytes");
}

TEST_F(BackupList, standsInTheMainApplicationsFolder) { EXPECT_EQ(agent->_manifestLocation(), kList); }

TEST_F(BackupList, isAPropertyListOfIntegersByUDID) {
  launch();
  const auto stick = world.disks.usbPartition("STICK");
  world.desktop.answerNextAlert("Ignore Volume");
  attach(stick);
  EXPECT_EQ(list(), (Dictionary{{UDID(stick), PropertyList(std::int64_t{-1})}}));
  EXPECT_THAT(world.files.read(kList).value(), HasSubstr("<integer>-1</integer>"));
}

TEST_F(BackupList, thatIsMissingMakesEveryVolumeAskedAbout) {
  launch();
  attachAndAnswer("STICK", "Later");
  EXPECT_EQ(world.desktop.alerts().size(), 1);
  EXPECT_FALSE(world.files.fileExists(kList));
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(BackupList, thatIsUnreadableMakesEveryVolumeAskedAboutAndIsStartedAnew) {
  world.files.write(kList, "no property list at all");
  launch();
  const auto stick = world.disks.usbPartition("STICK");
  world.desktop.answerNextAlert("Ignore Volume");
  attach(stick);
  EXPECT_EQ(world.desktop.alerts().size(), 1);
  EXPECT_EQ(list(), (Dictionary{{UDID(stick), -1}}));
}

TEST_F(BackupList, thatIsNoDictionaryMakesEveryVolumeAskedAboutAndIsStartedAnew) {
  world.files.write(kList, "<plist version=\"1.0\"><array><integer>1</integer></array></plist>");
  launch();
  const auto stick = world.disks.usbPartition("STICK");
  world.desktop.answerNextAlert("Backup", true);
  attach(stick);
  finish();
  EXPECT_EQ(world.desktop.alerts().size(), 1);
  EXPECT_EQ(list(), (Dictionary{{UDID(stick), 1}}));
}

TEST_F(BackupList, keepsTheEntriesOfOtherVolumes) {
  writeList({{"OTHER", 1}, {"STRANGE", "text"}});
  launch();
  const auto stick = world.disks.usbPartition("STICK");
  world.desktop.answerNextAlert("Ignore Volume");
  attach(stick);
  EXPECT_EQ(list(), (Dictionary{{"OTHER", 1}, {"STRANGE", "text"}, {UDID(stick), -1}}));
}

TEST_F(BackupList, losesTheFlagWhenTheFolderDoesNotExistAndDoesNotMakeIt) {
  launch();
  world.desktop.whileAlertIsOpen([this] { world.files.remove(kStore); });
  attachAndAnswer("STICK", "Ignore Volume");
  EXPECT_FALSE(world.files.fileExists(kStore));
}

TEST_F(BackupList, goesByUDIDAndSoSurvivesANewName) {
  const auto stick = world.disks.usbPartition("OLD");
  writeList({{UDID(stick), -1}});
  launch();
  attach(with(stick, ports::kDADiskDescriptionVolumeNameKey, "NEW"));
  EXPECT_THAT(deviceNames(), ElementsAre("NEW"));
  EXPECT_THAT(world.desktop.alerts(), IsEmpty());
}

TEST_F(BackupList, deviceWithoutAUDIDIsAlwaysAskedAboutAndNeverWritten) {
  writeList({{"", 1}, {"(null)", 1}});
  auto stick = world.disks.usbPartition("STICK");
  stick.erase(std::string(ports::kDADiskDescriptionMediaUUIDKey));
  launch();
  for (const char* button : {"Ignore Volume", "Backup"}) {
    world.desktop.answerNextAlert(button, true);
    const auto disk = attach(stick);
    finish();
    pull(disk);
  }
  EXPECT_EQ(world.desktop.alerts().size(), 2);
  EXPECT_EQ(list(), (Dictionary{{"", 1}, {"(null)", 1}}));
  EXPECT_EQ(imagesRun(), 1);
}

TEST_F(BackupList, decidesWithoutTheGlobalSwitch) {
  const auto automatic = world.disks.usbPartition("AUTOMATIC");
  writeList({{UDID(automatic), 1}});
  launch();
  attach(automatic);
  finish();
  EXPECT_EQ(imagesRun(), 1);
  agent->_setAutomaticBackups(true);
  attachAndAnswer("OTHER", "Later");
  EXPECT_EQ(world.desktop.alerts().size(), 1);
  EXPECT_EQ(imagesRun(), 1);
}

TEST_F(BackupStart, scansTheMountPointAndHandsTheScanToTheEngine) {
  launch();
  Gate gate(world);
  attachAndBackUpTo(gate, "STICK");
  const auto record = agent->stashwick()->backupQuery();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->path(), (base::FileURL{"/Volumes/STICK", true}));
  EXPECT_TRUE(record->ignoresHiddenFiles());
  gate.open();
  finish();
}

TEST_F(PostponedBackup, isTriedAgainEvery30SecondsWithOneLogLineEach) {
  world.user.setRunningBundleNames({"Stashwick"});
  launch();
  attachAndAnswer("STICK", "Backup");
  EXPECT_EQ(world.log.lines(), Lines{kPostponed});
  world.letSecondsPass(29);
  EXPECT_EQ(world.log.lines().size(), 1);
  world.letSecondsPass(1);
  EXPECT_EQ(world.log.lines(), Lines(2, kPostponed));
  EXPECT_EQ(imagesRun(), 0);
  EXPECT_FALSE(agent->stashwick()->hasOperations());
}

TEST_F(PostponedBackup, isTriedWithoutLimit) {
  world.user.setRunningBundleNames({"Stashwick"});
  launch();
  attachAndAnswer("STICK", "Backup");
  world.letSecondsPass(30 * 10'000);
  EXPECT_EQ(world.log.lines(), Lines(10'001, kPostponed));
}

TEST_F(PostponedBackup, runsOnceTheMainApplicationHasQuit) {
  world.user.setRunningBundleNames({"Stashwick"});
  launch();
  attachAndAnswer("STICK", "Backup");
  world.user.setRunningBundleNames({});
  world.letSecondsPass(29);
  EXPECT_EQ(imagesRun(), 0);
  world.letSecondsPass(1);
  finish();
  EXPECT_EQ(imagesRun(), 1);
  world.letSecondsPass(300);
  finish();
  EXPECT_EQ(imagesRun(), 1);
  EXPECT_EQ(std::ranges::count(world.log.lines(), kPostponed), 1);
}

TEST_F(PostponedBackup, ofAnAutomaticVolumeComesWithoutSoundOrQuestion) {
  const auto stick = world.disks.usbPartition("STICK");
  writeList({{UDID(stick), 1}});
  world.user.setRunningBundleNames({"Stashwick"});
  launch();
  attach(stick);
  world.letSecondsPass(60);
  EXPECT_EQ(world.log.lines(), Lines(3, kPostponed));
  EXPECT_THAT(world.desktop.soundsPlayed(), IsEmpty());
  EXPECT_THAT(world.desktop.alerts(), IsEmpty());
}

TEST_F(PostponedBackup, doesNotCheckWhetherTheVolumeIsStillThere) {
  world.user.setRunningBundleNames({"Stashwick"});
  launch();
  const auto stick = attachAndAnswer("STICK", "Backup");
  pull(stick);
  world.user.setRunningBundleNames({});
  world.letSecondsPass(30);
  finish();
  ASSERT_EQ(imagesRun(), 1);
  EXPECT_TRUE(world.tools.runs()[0].hasArgument("/Volumes/STICK"));
}

TEST_F(PostponedBackup, isNotTriedWhileAQuestionIsOpen) {
  world.user.setRunningBundleNames({"Stashwick"});
  launch();
  attachAndAnswer("STICK", "Backup");
  std::size_t lines = 0;
  world.desktop.whileAlertIsOpen([&] {
    const auto before = world.log.lines().size();
    world.letSecondsPass(300);
    lines = world.log.lines().size() - before;
  });
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"STICK\" now ...");
  EXPECT_EQ(lines, 0);
  world.runMainQueue();
  EXPECT_EQ(world.log.lines().size(), 2);
}

}  // namespace
}  // namespace tests::app
