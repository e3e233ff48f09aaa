// The record of a volume's scan: what is found and counted, when it is ready, who is told, and its archive.

#include "store/query_result.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "platform/fake/world.h"
#include "tests/store/archive.h"

namespace tests::store {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Record = std::shared_ptr<ZQStashwickQueryResult>;
using URLs = std::vector<base::FileURL>;

constexpr const char* kStick = "/Volumes/STICK";

// Remembers the thread of the last enumeration, and how many there were.
class WatchedFiles : public platform::fake::Files {
 public:
  using Files::Files;

  void enumerate(const std::string& path, const ports::ResourceKeys& keys,
                 const std::function<bool(const ports::FileItem&)>& visit) override {
    thread = std::this_thread::get_id();
    ++enumerations;
    Files::enumerate(path, keys, visit);
  }

  std::atomic<std::thread::id> thread;
  std::atomic<int> enumerations = 0;
};

// A folder that never ends.
class EndlessFiles : public platform::fake::Files {
 public:
  using Files::Files;

  void enumerate(const std::string&, const ports::ResourceKeys&,
                 const std::function<bool(const ports::FileItem&)>& visit) override {
    ports::FileItem item;
    item.isHidden = true;
    while (visit(item)) started = true;
    ended = true;
  }

  std::atomic<bool> started = false;
  std::atomic<bool> ended = false;
};

class Scan : public ::testing::Test {
 protected:
  Record startScan(bool considerHiddenFiles = true, const std::string& folder = kStick) {
    return ZQStashwickQueryResult::initWithPath(files, {folder, true}, considerHiddenFiles);
  }
  Record scan(bool considerHiddenFiles = true, const std::string& folder = kStick) {
    auto record = startScan(considerHiddenFiles, folder);
    record->waitUntilReady();
    return record;
  }
  // A scan that stops before it visits the item, which is on the stick.
  Record scanHeldAt(const std::string& name) {
    files.holdEnumerationAt(std::string(kStick) + "/" + name);
    auto record = startScan();
    files.waitUntilEnumerationIsHeld();
    return record;
  }
  // Everything that the scans of this process have counted.
  std::int64_t total() { return scan(true, "/nothing here")->bytes(); }

  // "a" of 100 bytes, ".b" of 50, and "c" with "d" of 10.
  void fillStick() {
    write("a", 100);
    write(".b", 50);
    write("c/d", 10);
  }
  void write(const std::string& name, std::size_t size) {
    files.write(std::string(kStick) + "/" + name, std::string(size, 'x'));
  }
  Record scanOf(int count) {
    for (int i = 0; i < count; ++i) write("f" + std::to_string(i), 0);
    return scan();
  }
  static std::vector<std::string> namesOf(const Record& record) {
    std::vector<std::string> names;
    const auto files = record->files();
    for (const auto& file : *files) names.push_back(file.path.substr(std::string(kStick).size() + 1));
    return names;
  }
  static Record decoded(const ZQStashwickQueryResult& record) {
    return ZQStashwickQueryResult::initWithCoder(rootOf(record));
  }

  platform::fake::World world;
  WatchedFiles files{world.clock, world.failure};
};

using ScanTotal = Scan;
using ScanReadiness = Scan;
using ScanObserver = Scan;
using ScanEnd = Scan;
using ScanArchive = Scan;

TEST_F(Scan, listsFilesAndFoldersInTheOrderOfTheWalkWithoutHiddenItems) {
  fillStick();
  EXPECT_EQ(*scan(true)->files(),
            (URLs{{"/Volumes/STICK/a", false}, {"/Volumes/STICK/c", true}, {"/Volumes/STICK/c/d", false}}));
}

TEST_F(Scan, listsHiddenItemsWhenTheyAreNotConsidered) {
  fillStick();
  EXPECT_THAT(namesOf(scan(false)), ElementsAre(".b", "a", "c", "c/d"));
}

TEST_F(Scan, storesTheFlagForHiddenFilesAsItStandsAndNotInverted) {
  EXPECT_TRUE(scan(true)->ignoresHiddenFiles());
  EXPECT_FALSE(scan(false)->ignoresHiddenFiles());
}

TEST_F(Scan, leavesAHiddenFolderOutButListsWhatIsInIt) {
  write(".hidden/seen", 1);
  write(".hidden/.unseen", 1);
  write(".hidden/sub/.deep/seen", 1);
  EXPECT_THAT(namesOf(scan(true)), ElementsAre(".hidden/seen", ".hidden/sub", ".hidden/sub/.deep/seen"));
}

TEST_F(Scan, entersPackages) {
  write("Notes.app/Contents/Info.plist", 1);
  EXPECT_THAT(namesOf(scan(true)),
              ElementsAre("Notes.app", "Notes.app/Contents", "Notes.app/Contents/Info.plist"));
}

TEST_F(Scan, listsALinkToAFolderButDoesNotFollowIt) {
  write("c/d", 1);
  std::filesystem::create_symlink("c", files.realPath("/Volumes/STICK/link"));
  EXPECT_THAT(namesOf(scan(true)), ElementsAre("c", "c/d", "link"));
}

TEST_F(Scan, remembersTheFolderUnchanged) {
  EXPECT_EQ(scan()->path(), (base::FileURL{"/Volumes/STICK", true}));
}

TEST_F(Scan, ofAMissingFolderIsReadyAndEmptyWithTheTotalSoFar) {
  fillStick();
  const auto before = scan()->bytes();
  const auto record = scan(true, "/Volumes/MISSING");
  EXPECT_TRUE(record->ready());
  EXPECT_THAT(*record->files(), IsEmpty());
  EXPECT_EQ(record->bytes(), before);
  EXPECT_EQ(record->seconds(), 0);
}

TEST_F(Scan, ofAPlainFileIsReadyAndEmpty) {
  files.write(kStick, "a file");
  const auto record = scan();
  EXPECT_TRUE(record->ready());
  EXPECT_THAT(*record->files(), IsEmpty());
}

TEST_F(Scan, asksForTheseResourceValuesInThisOrder) {
  EXPECT_THAT(scan()->properties(), ElementsAre("NSURLNameKey", "NSURLIsDirectoryKey", "NSURLIsHiddenKey",
                                                "NSURLTotalFileSizeKey"));
}

TEST_F(Scan, estimatesHalfASecondForEachItemTruncated) {
  EXPECT_EQ(scanOf(0)->seconds(), 0);
  EXPECT_EQ(scanOf(1)->seconds(), 0);
  EXPECT_EQ(scanOf(2)->seconds(), 1);
  EXPECT_EQ(scanOf(3)->seconds(), 1);
  EXPECT_EQ(scanOf(7)->seconds(), 3);
  EXPECT_EQ(scanOf(1000)->seconds(), 500);
}

TEST_F(Scan, estimateTakesNoNoticeOfSizesButCountsFolders) {
  write("big", 100'000);
  write("folder/small", 1);
  EXPECT_EQ(scan()->seconds(), 1);
  write("folder/smaller", 0);
  EXPECT_EQ(scan()->seconds(), 2);
}

TEST_F(ScanTotal, countsTheSizesOfAllFilesHiddenOnesIncluded) {
  fillStick();
  const auto before = total();
  EXPECT_EQ(scan(true)->bytes() - before, 160);
}

TEST_F(ScanTotal, isTheSameWhetherHiddenItemsAreListedOrNot) {
  fillStick();
  const auto before = total();
  const auto first = scan(true)->bytes() - before;
  EXPECT_EQ(scan(false)->bytes() - before - first, first);
}

TEST_F(ScanTotal, isNeverResetSoThatASecondScanReportsBoth) {
  fillStick();
  const auto before = total();
  const auto first = scan();
  const auto second = scan();
  EXPECT_EQ(first->bytes() - before, 160);
  EXPECT_EQ(second->bytes() - before, 320);
}

TEST_F(ScanTotal, foldersAndLinksAddNothing) {
  write("folder/a", 7);
  std::filesystem::create_symlink("folder/a", files.realPath("/Volumes/STICK/link"));
  const auto before = total();
  EXPECT_EQ(scan()->bytes() - before, 7);
}

TEST_F(ScanTotal, countsWhatIsInHiddenFolders) {
  write(".hidden/.a", 7);
  const auto before = total();
  EXPECT_EQ(scan()->bytes() - before, 7);
}

TEST_F(ScanTotal, isAddedToByScansThatRunTogether) {
  write("a", 3);
  write("b", 4);
  files.write("/Volumes/OTHER/c", "12345");
  const auto before = total();
  const auto first = scanHeldAt("b");
  const auto second = scan(true, "/Volumes/OTHER");
  EXPECT_EQ(second->bytes() - before, 3 + 5);
  files.releaseEnumeration();
  first->waitUntilReady();
  EXPECT_EQ(first->bytes() - before, 3 + 5 + 4);
}

TEST_F(ScanReadiness, comesWhenTheWalkEnds) {
  write("a", 1);
  const auto record = scanHeldAt("a");
  EXPECT_FALSE(record->ready());
  files.releaseEnumeration();
  record->waitUntilReady();
  EXPECT_TRUE(record->ready());
}

TEST_F(ScanReadiness, beforeItTheListIsReadAsFarAsItGoesAndTheBytesAreNone) {
  write("a", 3);
  write("b", 4);
  write("c", 5);
  const auto record = scanHeldAt("c");
  EXPECT_THAT(namesOf(record), ElementsAre("a", "b"));
  EXPECT_EQ(record->seconds(), 1);
  EXPECT_EQ(record->bytes(), 0);
  files.releaseEnumeration();
  record->waitUntilReady();
  EXPECT_THAT(namesOf(record), ElementsAre("a", "b", "c"));
}

TEST_F(ScanReadiness, partialListStaysAsItWasRead) {
  write("a", 1);
  write("b", 1);
  const auto record = scanHeldAt("b");
  const auto partial = record->files();
  files.releaseEnumeration();
  record->waitUntilReady();
  EXPECT_EQ(partial->size(), 1);
  EXPECT_EQ(record->files()->size(), 2);
}

TEST_F(ScanReadiness, isWaitedForByAnyNumberOfThreads) {
  write("a", 1);
  const auto record = scanHeldAt("a");
  std::atomic<int> waiting = 0;
  std::atomic<int> cameBackReady = 0;
  const auto wait = [&] {
    ++waiting;
    world.wake();
    record->waitUntilReady();
    if (record->ready() && record->files()->size() == 1) ++cameBackReady;
  };
  std::thread first(wait);
  std::thread second(wait);
  world.runUntil([&] { return waiting == 2; });
  EXPECT_EQ(cameBackReady, 0);
  files.releaseEnumeration();
  first.join();
  second.join();
  EXPECT_EQ(cameBackReady, 2);
}

TEST_F(ScanReadiness, ofOneScanDoesNotWaitForAnother) {
  write("a", 1);
  files.write("/Volumes/OTHER/b", "b");
  const auto held = scanHeldAt("a");
  EXPECT_TRUE(scan(true, "/Volumes/OTHER")->ready());
  EXPECT_FALSE(held->ready());
  files.releaseEnumeration();
}

TEST_F(ScanReadiness, comesOnAnotherThreadThanTheOneThatAsked) {
  scan();
  EXPECT_NE(files.thread.load(), std::this_thread::get_id());
}

TEST_F(ScanObserver, isToldOnceWhenTheWalkEndsOnTheThreadOfTheScan) {
  write("a", 1);
  auto record = scanHeldAt("a");
  std::atomic<int> told = 0;
  std::thread::id thread;
  record->addReadyObserver([&] {
    thread = std::this_thread::get_id();
    ++told;
    world.wake();
  });
  EXPECT_EQ(told, 0);
  files.releaseEnumeration();
  world.runUntil([&] { return told > 0; });
  record.reset();
  EXPECT_EQ(told, 1);
  EXPECT_EQ(thread, files.thread.load());
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(ScanObserver, findsTheRecordReadyAndComplete) {
  write("a", 3);
  write("b", 4);
  const auto before = total();
  auto record = scanHeldAt("b");
  std::atomic<bool> complete = false;
  record->addReadyObserver([&, seen = record.get()] {
    complete = seen->ready() && seen->files()->size() == 2 && seen->bytes() - before == 7;
  });
  files.releaseEnumeration();
  record.reset();
  EXPECT_TRUE(complete);
}

TEST_F(ScanObserver, isNotToldWhenTheWalkHadAlreadyEnded) {
  auto record = scan();
  std::atomic<int> told = 0;
  record->addReadyObserver([&] { ++told; });
  record.reset();
  EXPECT_EQ(told, 0);
}

TEST_F(ScanObserver, thatWasRemovedIsNotTold) {
  write("a", 1);
  auto record = scanHeldAt("a");
  std::atomic<int> told = 0;
  std::atomic<int> toldTheOther = 0;
  const auto token = record->addReadyObserver([&] { ++told; });
  record->addReadyObserver([&] { ++toldTheOther; });
  record->removeReadyObserver(token);
  files.releaseEnumeration();
  record.reset();
  EXPECT_EQ(told, 0);
  EXPECT_EQ(toldTheOther, 1);
}

TEST_F(ScanObserver, removalOfWhatIsNotRegisteredIsHarmless) {
  const auto record = scan();
  const auto token = record->addReadyObserver([] {});
  record->removeReadyObserver(token);
  record->removeReadyObserver(token);
  record->removeReadyObserver(12345);
  EXPECT_TRUE(record->ready());
}

TEST_F(ScanObserver, mayLetGoOfTheRecordOnTheThreadOfTheScan) {
  write("a", 1);
  auto record = scanHeldAt("a");
  const std::weak_ptr<ZQStashwickQueryResult> watched = record;
  record->addReadyObserver([held = std::move(record), this]() mutable {
    held.reset();
    world.wake();
  });
  files.releaseEnumeration();
  EXPECT_TRUE(world.runUntil([&] { return watched.expired(); }));
}

TEST_F(ScanEnd, destructionEndsAScanThatStillRuns) {
  EndlessFiles endless(world.clock, world.failure);
  auto record = ZQStashwickQueryResult::initWithPath(endless, {kStick, true}, true);
  while (!endless.started) std::this_thread::yield();
  EXPECT_FALSE(record->ready());
  record.reset();
  EXPECT_TRUE(endless.ended);
}

TEST_F(ScanEnd, whenTheVolumeGoesTheScanIsReadyWithWhatItFound) {
  write("a", 1);
  write("b", 1);
  const auto record = scanHeldAt("b");
  files.remove(kStick);
  files.releaseEnumeration();
  record->waitUntilReady();
  EXPECT_THAT(namesOf(record), ElementsAre("a"));
}

TEST_F(ScanArchive, bringsEverythingBackUnchanged) {
  fillStick();
  for (const bool considerHiddenFiles : {true, false}) {
    const auto record = scan(considerHiddenFiles);
    const auto back = decoded(*record);
    EXPECT_EQ(*back->files(), *record->files());
    EXPECT_EQ(back->path(), record->path());
    EXPECT_EQ(back->bytes(), record->bytes());
    EXPECT_TRUE(back->ready());
    EXPECT_EQ(back->ignoresHiddenFiles(), considerHiddenFiles);
    EXPECT_EQ(back->seconds(), record->seconds());
  }
}

TEST_F(ScanArchive, bringsNamesBackThatAreNotPlain) {
  write("a b%#?", 1);
  write("\u00e9\u4e2d", 1);
  write("folder/x", 1);
  const auto record = scan();
  EXPECT_EQ(*decoded(*record)->files(), *record->files());
}

TEST_F(ScanArchive, standsUnderItsClassNameWithTheseKeysInThisOrder) {
  const auto record = scan();
  EXPECT_EQ(rootOf(*record).className(), "ZQStashwickQueryResult");
  EXPECT_THAT(keysOf(*record, "files"), ElementsAre("files", "path", "bytes", "ready", "ignoresHiddenFiles"));
}

TEST_F(ScanArchive, decodedRecordStartsNoScan) {
  fillStick();
  const auto record = scan();
  const auto scansBefore = files.enumerations.load();
  const auto totalBefore = record->bytes();
  write("new", 1000);
  const auto back = decoded(*record);
  back->waitUntilReady();
  EXPECT_THAT(namesOf(back), ElementsAre("a", "c", "c/d"));
  EXPECT_EQ(files.enumerations, scansBefore);
  EXPECT_EQ(total(), totalBefore);
}

TEST_F(ScanArchive, isLetGoOfOnceTheListWasRead) {
  auto bytes = std::make_shared<base::MemoryRandomAccess>(base::archivedDataWithRootObject(*scan()));
  const std::weak_ptr<base::MemoryRandomAccess> archive = bytes;
  const auto back = ZQStashwickQueryResult::initWithCoder(base::unarchivedRoot(std::move(bytes)).value());
  EXPECT_FALSE(archive.expired());
  EXPECT_THAT(*back->files(), IsEmpty());
  EXPECT_TRUE(archive.expired());
  EXPECT_THAT(*back->files(), IsEmpty());
}

TEST_F(ScanArchive, decodedRecordTellsNoObserver) {
  std::atomic<int> told = 0;
  auto back = decoded(*scan());
  back->addReadyObserver([&] { ++told; });
  back->waitUntilReady();
  back.reset();
  EXPECT_EQ(told, 0);
}

TEST_F(ScanArchive, ofARunningScanHoldsWhatWasFoundAndComesBackNotReadyWithoutAWait) {
  write("a", 1);
  write("b", 1);
  const auto record = scanHeldAt("b");
  const auto back = decoded(*record);
  files.releaseEnumeration();
  back->waitUntilReady();
  EXPECT_FALSE(back->ready());
  EXPECT_THAT(namesOf(back), ElementsAre("a"));
  EXPECT_EQ(back->bytes(), 0);
}

TEST_F(ScanArchive, ofAnEmptyFolderBringsBackAnEmptyListAndNotNone) {
  const auto back = decoded(*scan());
  ASSERT_NE(back->files(), nullptr);
  EXPECT_THAT(*back->files(), IsEmpty());
}

TEST_F(ScanArchive, withADamagedListComesBackWithoutFiles) {
  write("a", 1);
  const auto record = scan();
  const auto damaged = withDamagedURL(textOf(base::archivedDataWithRootObject(*record)), "/Volumes/STICK/a");
  const auto back = ZQStashwickQueryResult::initWithCoder(rootOf(bytesOf(damaged)));
  EXPECT_EQ(back->files(), nullptr);
  EXPECT_EQ(back->seconds(), 0);
  EXPECT_EQ(back->path(), record->path());
  EXPECT_EQ(back->bytes(), record->bytes());
  EXPECT_TRUE(back->ready());
}

TEST_F(ScanArchive, ofADecodedRecordIsTheSameAgain) {
  fillStick();
  const auto record = scan();
  const auto again = decoded(*decoded(*record));
  EXPECT_EQ(*again->files(), *record->files());
  EXPECT_EQ(again->bytes(), record->bytes());
}

}  // namespace
}  // namespace tests::store
