#include "platform/embedded/embedded_disks.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include "base/xml_property_list.h"
#include "platform/posix/posix_archives.h"
#include "platform/posix/posix_files.h"
#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"
#include "tests/support/own_mounts.h"

namespace platform::embedded {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class FixedDates : public ports::Dates {
 public:
  base::Date now() override { return {time}; }
  std::vector<std::string> preferredLanguages() override { return {"en"}; }
  std::string mediumDateAndTime(base::Date, const std::string&) override { return {}; }
  std::string shortRelativeDateAndTime(base::Date) override { return {}; }

  double time = 800000037;
};

class EmbeddedDisksTest : public testing::Test {
 protected:
  EmbeddedDisksTest() { fs::create_directory(volumes()); }

  std::string volumes() const { return temporary / "volumes"; }
  // Makes a folder outside and moves it in, so that it arrives whole.
  void moveIn(const std::string& name, std::string_view contents = "12345") {
    temporary.write(name + "/file", contents);
    fs::rename(temporary / name, volumes() + "/" + name);
  }
  void moveOut(const std::string& name) { fs::rename(volumes() + "/" + name, temporary / name); }
  void writeSideFile(const std::string& name, const ports::DiskDescription& entries) {
    temporary.write("side", base::writeXMLPropertyList(base::PropertyList(entries)));
    fs::rename(temporary / "side", volumes() + "/" + name + ".plist");
  }

  void watch() {
    ASSERT_TRUE(disks.watchVolumesFolder(volumes()));
    listen();
  }
  void listen() {
    session = disks.createSession({.appeared = [this](const ports::DiskRef& disk) { note("+", disk); },
                                   .disappeared = [this](const ports::DiskRef& disk) { note("-", disk); },
                                   .approveUnmount = {}});
  }
  void note(const std::string& sign, const ports::DiskRef& disk) {
    events.push_back(sign + text(disk, ports::kDADiskDescriptionVolumeNameKey));
    if (sign == "+") latest = disk;
  }

  bool runUntil(const std::function<bool()>& condition) {
    bool tooLong = false;
    loop.postAfter(30, [&] { tooLong = true; });
    loop.runUntil([&] { return tooLong || condition(); });
    return condition();
  }
  // Serves the loop until this many events were told, and what came with the last of them.
  const std::vector<std::string>& eventsOnce(std::size_t count) {
    EXPECT_TRUE(runUntil([&] { return events.size() >= count; })) << testing::PrintToString(events);
    return events;
  }
  // A folder that arrives last shows that nothing else did.
  const std::vector<std::string>& eventsBeforeASentinel() {
    moveIn("SENTINEL");
    EXPECT_TRUE(runUntil([&] { return !events.empty() && events.back() == "+SENTINEL"; }));
    events.pop_back();
    return events;
  }

  std::string text(const ports::DiskRef& disk, std::string_view key) {
    const auto description = disks.copyDescription(disk);
    const auto* value = base::find<std::string>(description, key);
    return value ? *value : "(none)";
  }
  double number(const ports::DiskRef& disk, std::string_view key) {
    return base::findNumber(disks.copyDescription(disk), key).value_or(-1);
  }
  std::string uuid() { return text(latest, ports::kDADiskDescriptionMediaUUIDKey); }
  std::optional<ports::Dissenter> outcomeOf(void (EmbeddedDisks::*operation)(const ports::DiskRef&,
                                                                             ports::DiskCompletion),
                                            const ports::DiskRef& disk) {
    bool completed = false;
    std::optional<ports::Dissenter> outcome;
    (disks.*operation)(disk, [&](const auto& dissenter) {
      outcome = dissenter;
      completed = true;
    });
    EXPECT_TRUE(runUntil([&] { return completed; }));
    return outcome;
  }

  TemporaryFolder temporary;
  RecordingLog log;
  posix::MainLoop loop;
  posix::PathMap paths{"/nonexistent/tools", "/nonexistent/volumes"};
  posix::PosixFiles files{paths};
  posix::PosixArchives archives{paths, log};
  FixedDates dates;
  EmbeddedDisks disks{{loop, paths, files, archives, dates, log}};
  std::vector<std::string> events;
  ports::DiskRef latest;
  std::unique_ptr<ports::DiskSession> session;
};

TEST_F(EmbeddedDisksTest, takesFoldersThatAreThereInOrderOfTheirNames) {
  moveIn("B");
  moveIn("A");
  watch();
  EXPECT_THAT(eventsOnce(2), ElementsAre("+A", "+B"));
}

TEST_F(EmbeddedDisksTest, reportsFoldersThatAreMadeAndRemoved) {
  watch();
  fs::create_directory(volumes() + "/STICK");
  eventsOnce(1);
  fs::remove(volumes() + "/STICK");
  EXPECT_THAT(eventsOnce(2), ElementsAre("+STICK", "-STICK"));
}

TEST_F(EmbeddedDisksTest, takesNoFilesAndLinks) {
  watch();
  temporary.write("volumes/file", "x");
  fs::create_directory_symlink(temporary.path(), volumes() + "/LINK");
  EXPECT_THAT(eventsBeforeASentinel(), IsEmpty());
}

TEST_F(EmbeddedDisksTest, takesNoNameThatCouldDoHarm) {
  watch();
  moveIn("line\nfeed");
  EXPECT_THAT(eventsBeforeASentinel(), IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("a volume cannot have this name")));
}

TEST_F(EmbeddedDisksTest, describesAFolderAsAUSBStick) {
  watch();
  moveIn("STICK", "1234567890");
  eventsOnce(1);
  const auto description = disks.copyDescription(latest);
  EXPECT_EQ(text(latest, "DADeviceProtocol"), "USB");
  EXPECT_EQ(text(latest, "DAMediaBSDName"), "disk2s1");
  EXPECT_EQ(*base::find<bool>(description, "DADeviceInternal"), false);
  EXPECT_EQ(*base::find<bool>(description, "DAMediaWhole"), false);
  EXPECT_EQ(*base::find<bool>(description, "DAMediaWritable"), true);
  EXPECT_EQ(*base::find<bool>(description, "DAMediaEjectable"), true);
  EXPECT_EQ(*base::find<bool>(description, "DAVolumeMountable"), true);
  EXPECT_TRUE(description.contains("DAMediaIcon"));
  EXPECT_THAT(text(latest, "DAVolumeKind"), testing::MatchesRegex("[a-z0-9]+"));
}

TEST_F(EmbeddedDisksTest, countsTheFilesOfAPlainFolderAsItsSizeAndNothingFree) {
  watch();
  temporary.write("STICK/deep/er/.hidden", "123");
  moveIn("STICK", "1234567890");
  eventsOnce(1);
  EXPECT_EQ(number(latest, "DAMediaSize"), 13);
  EXPECT_TRUE(disks.isPlainFolder("/Volumes/STICK"));
  EXPECT_FALSE(disks.isPlainFolder("/Volumes/OTHER"));
  EXPECT_FALSE(disks.isPlainFolder("/Volumes/STICK/deep"));
}

TEST_F(EmbeddedDisksTest, mapsEachVolumeToItsFolderWhileItIsThere) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  EXPECT_EQ(paths.hostPath("/Volumes/STICK/file"), volumes() + "/STICK/file");
  moveOut("STICK");
  eventsOnce(2);
  EXPECT_EQ(paths.hostPath("/Volumes/STICK/file"), "/nonexistent/volumes/STICK/file");
}

TEST_F(EmbeddedDisksTest, stampsWhatArrivesWithTheUpperAndWhatWasThereWithTheLowerEndOfTheStep) {
  moveIn("OLD");
  watch();
  eventsOnce(1);
  EXPECT_EQ(number(latest, "DAAppearanceTime"), 800000000);
  moveIn("NEW");
  eventsOnce(2);
  EXPECT_EQ(number(latest, "DAAppearanceTime"), 800000064);
}

TEST_F(EmbeddedDisksTest, stampsAnArrivalAtTheVeryStartOfAStepLaterThanNow) {
  watch();
  dates.time = 800000064;
  moveIn("NEW");
  eventsOnce(1);
  EXPECT_EQ(number(latest, "DAAppearanceTime"), 800000128);
}

TEST_F(EmbeddedDisksTest, keepsUUIDAcrossRenamesAndRuns) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  const auto before = uuid();
  fs::rename(volumes() + "/STICK", volumes() + "/RENAMED");
  EXPECT_THAT(eventsOnce(3), ElementsAre("+STICK", "-STICK", "+RENAMED"));
  EXPECT_EQ(uuid(), before);
  EXPECT_EQ(before.at(14), '5') << "the version";

  EmbeddedDisks nextRun({loop, paths, files, archives, dates, log});
  std::string found;
  ASSERT_TRUE(nextRun.watchVolumesFolder(volumes()));
  const auto other = nextRun.createSession(
      {.appeared = [&](const ports::DiskRef& disk) { found = text(disk, "DAMediaUUID"); },
       .disappeared = {},
       .approveUnmount = {}});
  EXPECT_TRUE(runUntil([&] { return !found.empty(); }));
  EXPECT_EQ(found, before);
}

TEST_F(EmbeddedDisksTest, givesTwoFoldersTwoUUIDs) {
  watch();
  moveIn("A");
  eventsOnce(1);
  const auto first = uuid();
  moveIn("B");
  eventsOnce(2);
  EXPECT_NE(uuid(), first);
}

TEST_F(EmbeddedDisksTest, keepsBSDNameAndAppearanceOfARenamedFolder) {
  moveIn("OLD");
  watch();
  eventsOnce(1);
  moveIn("OTHER");
  eventsOnce(2);
  fs::rename(volumes() + "/OLD", volumes() + "/RENAMED");
  eventsOnce(4);
  EXPECT_EQ(text(latest, "DAMediaBSDName"), "disk2s1");
  EXPECT_EQ(number(latest, "DAAppearanceTime"), 800000000);
}

TEST_F(EmbeddedDisksTest, reportsAFolderThatWasReplacedAsAnotherVolume) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  const auto before = uuid();
  temporary.write("other/file", "x");
  ASSERT_EQ(::renameat2(AT_FDCWD, (temporary / "other").c_str(), AT_FDCWD, (volumes() + "/STICK").c_str(),
                        RENAME_EXCHANGE),
            0);
  EXPECT_THAT(eventsOnce(3), ElementsAre("+STICK", "-STICK", "+STICK"));
  EXPECT_NE(uuid(), before);
}

TEST_F(EmbeddedDisksTest, numbersVolumesOfOneName) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  fs::create_directories(temporary / "elsewhere/STICK");
  ASSERT_TRUE(disks.attach(temporary / "elsewhere/STICK"));
  EXPECT_THAT(eventsOnce(2), ElementsAre("+STICK", "+STICK 1"));
  EXPECT_EQ(paths.hostPath("/Volumes/STICK 1"), temporary / "elsewhere/STICK");
  EXPECT_EQ(paths.hostPath("/Volumes/STICK"), volumes() + "/STICK");
}

TEST_F(EmbeddedDisksTest, overridesEntriesFromASideFile) {
  writeSideFile("STICK", {{"DADeviceProtocol", "SATA"},
                          {"DADeviceInternal", true},
                          {"DAMediaWhole", true},
                          {"DAAppearanceTime", 64},
                          {"DAVolumeName", "OTHER"}});
  moveIn("STICK");
  watch();
  EXPECT_THAT(eventsOnce(1), ElementsAre("+OTHER"));
  EXPECT_EQ(text(latest, "DADeviceProtocol"), "SATA");
  EXPECT_EQ(number(latest, "DADeviceInternal"), 1);
  EXPECT_EQ(number(latest, "DAMediaWhole"), 1);
  EXPECT_EQ(number(latest, "DAAppearanceTime"), 64);
  EXPECT_EQ(paths.hostPath("/Volumes/OTHER"), volumes() + "/STICK");
}

TEST_F(EmbeddedDisksTest, letsASideFileTakeTheNameAwayAndWithItThePath) {
  for (const char* name : {"", "..", "a/b"}) {
    SCOPED_TRACE(name);
    events.clear();
    writeSideFile("STICK", {{"DAVolumeName", name}});
    moveIn("STICK");
    if (!session) watch();
    EXPECT_THAT(eventsOnce(1), ElementsAre("+"));
    EXPECT_EQ(paths.hostPath("/Volumes/STICK"), "/nonexistent/volumes/STICK");
    moveOut("STICK");
    eventsOnce(2);
    fs::remove_all(temporary / "STICK");
  }
}

TEST_F(EmbeddedDisksTest, reportsAVolumeAnewWhenItsSideFileComesChangesAndGoes) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  writeSideFile("STICK", {{"DAVolumeName", "ONE"}});
  eventsOnce(3);
  writeSideFile("STICK", {{"DAVolumeName", "TWO"}});
  eventsOnce(5);
  fs::remove(volumes() + "/STICK.plist");
  EXPECT_THAT(eventsOnce(7), ElementsAre("+STICK", "-STICK", "+ONE", "-ONE", "+TWO", "-TWO", "+STICK"));
  EXPECT_EQ(text(latest, "DAMediaBSDName"), "disk2s1");
}

TEST_F(EmbeddedDisksTest, saysOnceThatASideFileCannotBeRead) {
  temporary.write("volumes/STICK.plist", "no property list");
  moveIn("STICK");
  watch();
  EXPECT_THAT(eventsOnce(1), ElementsAre("+STICK"));
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("STICK.plist")));
}

TEST_F(EmbeddedDisksTest, attachesAFolderWhereverItLies) {
  listen();
  temporary.write("elsewhere/STICK/file", "x");
  bool arrived = false;
  ASSERT_TRUE(disks.attach(temporary / "elsewhere/STICK/", [&](bool isThere) { arrived = isThere; }));
  EXPECT_THAT(events, IsEmpty()) << "told inside the call";
  EXPECT_TRUE(runUntil([&] { return arrived; }));
  EXPECT_THAT(events, ElementsAre("+STICK"));
  EXPECT_EQ(number(latest, "DAAppearanceTime"), 800000064);
}

TEST_F(EmbeddedDisksTest, callsAnAttachedFolderWhatItWasTypedAs) {
  listen();
  fs::create_directories(temporary / "real");
  fs::create_directory_symlink("real", temporary / "LINK");
  ASSERT_TRUE(disks.attach(temporary / "LINK"));
  eventsOnce(1);
  ASSERT_TRUE(disks.attach(temporary / "real/."));
  EXPECT_THAT(eventsOnce(3), ElementsAre("+LINK", "-LINK", "+real"));
}

TEST_F(EmbeddedDisksTest, attachesNothingThatIsNoFolder) {
  const auto why = [this](const std::string& folder) {
    const auto attached = disks.attach(folder);
    return attached ? "attached" : attached.error().message;
  };
  EXPECT_THAT(why(temporary / "missing"), HasSubstr("No such file"));
  EXPECT_THAT(why(temporary.write("file", "")), HasSubstr("not a folder"));
  EXPECT_THAT(why("/"), HasSubstr("cannot have this name"));
}

TEST_F(EmbeddedDisksTest, tellsThatAnAttachedFolderWasGoneBeforeItArrived) {
  listen();
  fs::create_directories(temporary / "STICK");
  std::optional<bool> arrived;
  ASSERT_TRUE(disks.attach(temporary / "STICK", [&](bool isThere) { arrived = isThere; }));
  fs::remove(temporary / "STICK");
  EXPECT_TRUE(runUntil([&] { return arrived.has_value(); }));
  EXPECT_FALSE(*arrived);
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(EmbeddedDisksTest, reportsAnAttachedFolderThatIsMovedOrRemovedAsGone) {
  listen();
  for (const bool isClaimed : {false, true}) {
    events.clear();
    fs::create_directories(temporary / "STICK");
    ASSERT_TRUE(disks.attach(temporary / "STICK"));
    eventsOnce(1);
    if (isClaimed) disks.claim(latest);
    fs::remove(temporary / "STICK");
    EXPECT_THAT(eventsOnce(2), ElementsAre("+STICK", "-STICK"));
  }
}

TEST_F(EmbeddedDisksTest, reportsAnAttachedFolderOfTheSameNameOnlyWhenItIsAttachedAgain) {
  watch();
  fs::create_directories(temporary / "STICK");
  ASSERT_TRUE(disks.attach(temporary / "STICK"));
  eventsOnce(1);
  fs::rename(temporary / "STICK", temporary / "gone");
  fs::create_directories(temporary / "STICK");
  eventsOnce(2);
  EXPECT_THAT(eventsBeforeASentinel(), ElementsAre("+STICK", "-STICK"));
}

TEST_F(EmbeddedDisksTest, hidesAPlainFolderThatWasUnmountedUntilItIsMountedAgain) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  const auto stick = latest;
  EXPECT_FALSE(outcomeOf(&EmbeddedDisks::unmount, stick));
  EXPECT_THAT(eventsBeforeASentinel(), ElementsAre("+STICK", "-STICK"));
  EXPECT_EQ(outcomeOf(&EmbeddedDisks::unmount, stick)->status, ports::kDAReturnNotMounted);
  EXPECT_FALSE(outcomeOf(&EmbeddedDisks::mount, stick));
  EXPECT_THAT(eventsOnce(3), ElementsAre("+STICK", "-STICK", "+STICK"));
  EXPECT_EQ(outcomeOf(&EmbeddedDisks::mount, latest)->status, ports::kDAReturnBusy);
}

TEST_F(EmbeddedDisksTest, reportsAnEjectedFolderAgainWhenItComesBackOrIsAttached) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  EXPECT_FALSE(outcomeOf(&EmbeddedDisks::eject, latest));
  eventsOnce(2);
  moveOut("STICK");
  EXPECT_THAT(eventsBeforeASentinel(), ElementsAre("+STICK", "-STICK"));
  fs::rename(temporary / "STICK", volumes() + "/STICK");
  eventsOnce(3);
  EXPECT_FALSE(outcomeOf(&EmbeddedDisks::eject, latest));
  eventsOnce(4);
  ASSERT_TRUE(disks.attach(volumes() + "/STICK"));
  EXPECT_THAT(eventsOnce(5), ElementsAre("+STICK", "-STICK", "+STICK", "-STICK", "+STICK"));
}

TEST_F(EmbeddedDisksTest, renamesTheFolder) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  disks.rename(latest, "RENAMED");
  EXPECT_THAT(eventsOnce(3), ElementsAre("+STICK", "-STICK", "+RENAMED"));
  EXPECT_TRUE(fs::exists(volumes() + "/RENAMED/file"));
}

TEST_F(EmbeddedDisksTest, keepsAnAttachedFolderThatItRenamed) {
  listen();
  fs::create_directories(temporary / "STICK");
  ASSERT_TRUE(disks.attach(temporary / "STICK"));
  eventsOnce(1);
  disks.rename(latest, "RENAMED");
  EXPECT_THAT(eventsOnce(3), ElementsAre("+STICK", "-STICK", "+RENAMED"));
}

TEST_F(EmbeddedDisksTest, refusesNamesThatAreTakenOrNone) {
  watch();
  moveIn("A");
  moveIn("B");
  eventsOnce(2);
  for (const char* name : {"A", "", "..", "x/y"}) disks.rename(latest, name);
  EXPECT_THAT(log.lines(),
              ElementsAre(HasSubstr("File exists"), HasSubstr("cannot have this name"),
                          HasSubstr("cannot have this name"), HasSubstr("cannot have this name")));
  EXPECT_THAT(eventsBeforeASentinel(), ElementsAre("+A", "+B"));
}

TEST_F(EmbeddedDisksTest, reportsEverythingAsGoneWithTheVolumesFolder) {
  watch();
  moveIn("STICK");
  eventsOnce(1);
  fs::rename(volumes(), temporary / "moved");
  EXPECT_THAT(eventsOnce(2), ElementsAre("+STICK", "-STICK"));
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("volumes folder")));
}

// Before anything looks at mounts.
struct OwnMounts {
  OwnMounts() { takeOwnMounts(); }
};

class EmbeddedDisksOnMountsTest : private OwnMounts, public EmbeddedDisksTest {
 protected:
  EmbeddedDisksOnMountsTest() {
    watch();
    fs::create_directory(point());
    eventsOnce(1);
  }
  ~EmbeddedDisksOnMountsTest() override { ::umount2(point().c_str(), MNT_DETACH); }

  std::string point() const { return volumes() + "/STICK"; }
  void mountStick(unsigned long flags = 0) {
    ASSERT_EQ(::mount("tmpfs", point().c_str(), "tmpfs", flags, "size=1m"), 0);
  }
};

TEST_F(EmbeddedDisksOnMountsTest, reportsWhatIsMountedOverAFolder) {
  mountStick(MS_RDONLY);
  EXPECT_THAT(eventsOnce(3), ElementsAre("+STICK", "-STICK", "+STICK"));
  EXPECT_EQ(text(latest, "DAVolumeKind"), "tmpfs");
  EXPECT_EQ(number(latest, "DAMediaSize"), 1048576);
  EXPECT_EQ(number(latest, "DAMediaWritable"), 0);
  EXPECT_FALSE(disks.isPlainFolder("/Volumes/STICK"));
}

TEST_F(EmbeddedDisksOnMountsTest, takesABareMountPointForNoVolumeUntilSomethingIsMountedAgain) {
  mountStick();
  eventsOnce(3);
  ASSERT_EQ(::umount(point().c_str()), 0);
  eventsOnce(4);
  EXPECT_THAT(eventsBeforeASentinel(), ElementsAre("+STICK", "-STICK", "+STICK", "-STICK"));
  mountStick();
  EXPECT_THAT(eventsOnce(5), ElementsAre("+STICK", "-STICK", "+STICK", "-STICK", "+STICK"));
}

TEST_F(EmbeddedDisksOnMountsTest, unmountsAMount) {
  mountStick();
  eventsOnce(3);
  EXPECT_FALSE(outcomeOf(&EmbeddedDisks::unmount, latest));
  eventsOnce(4);
  EXPECT_FALSE(identifyFolder(point())->isMountPoint);
  EXPECT_EQ(outcomeOf(&EmbeddedDisks::mount, latest)->status, ports::kDAReturnUnsupported);
}

TEST_F(EmbeddedDisksOnMountsTest, keepsAClaimedMountFromBeingUnmounted) {
  mountStick();
  eventsOnce(3);
  disks.claim(latest);
  EXPECT_EQ(::umount(point().c_str()), -1);
  EXPECT_EQ(outcomeOf(&EmbeddedDisks::unmount, latest)->status, ports::kDAReturnBusy);
  disks.unclaim(latest);
  EXPECT_FALSE(outcomeOf(&EmbeddedDisks::unmount, latest));
}

TEST_F(EmbeddedDisksOnMountsTest, letsAClaimedMountGoThatWasDetached) {
  mountStick();
  eventsOnce(3);
  disks.claim(latest);
  ASSERT_EQ(::umount2(point().c_str(), MNT_DETACH), 0);
  EXPECT_THAT(eventsOnce(4), ElementsAre("+STICK", "-STICK", "+STICK", "-STICK"));
}

TEST_F(EmbeddedDisksOnMountsTest, followsAnAttachedMountPoint) {
  mountStick();
  eventsOnce(3);
  ASSERT_TRUE(disks.attach(point()));
  eventsOnce(5);
  ASSERT_EQ(::umount(point().c_str()), 0);
  eventsOnce(6);
  mountStick();
  EXPECT_THAT(eventsOnce(7),
              ElementsAre("+STICK", "-STICK", "+STICK", "-STICK", "+STICK", "-STICK", "+STICK"));
}

}  // namespace
}  // namespace platform::embedded
