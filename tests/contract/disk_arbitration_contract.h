#pragma once

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ports/disk_arbitration.h"
#include "ports/main_queue.h"

namespace contract {

// What disk arbitration keeps to on every host. A fixture is made on the main thread and has
//   ports::DiskArbitration& disks();
//   ports::MainQueue& mainQueue();
//   void plug(name);           a stick whose one volume has this name is plugged in, and mounted by the host
//   void pull(name);
//   bool runUntil(condition);  serves the main queue until condition() is true; false when that takes too
//   long
template <class Fixture>
class DiskArbitrationContract : public testing::Test {
 protected:
  using Events = std::vector<std::string>;

  std::string nameOf(const ports::DiskRef& disk) {
    const auto description = fixture.disks().copyDescription(disk);
    const auto* name = base::find<std::string>(description, ports::kDADiskDescriptionVolumeNameKey);
    return name == nullptr ? "" : *name;
  }
  // Writes "+NAME" and "-NAME" for each volume of the test's, and notes calls from other threads.
  ports::DiskSessionCallbacks recordingInto(Events& events) {
    const auto record = [this, &events](const char* sign, const ports::DiskRef& disk) {
      const auto name = nameOf(disk);
      if (!name.starts_with("CONTRACT")) return;
      events.push_back(sign + name);
      if (!fixture.mainQueue().isMainThread()) events.push_back("on another thread");
    };
    return {.appeared = [record](const ports::DiskRef& disk) { record("+", disk); },
            .disappeared = [record](const ports::DiskRef& disk) { record("-", disk); },
            .approveUnmount = {}};
  }
  std::unique_ptr<ports::DiskSession> sessionRecordingInto(Events& events) {
    return fixture.disks().createSession(recordingInto(events));
  }
  bool waitFor(const Events& events, const std::string& event) {
    return fixture.runUntil([&] { return std::ranges::find(events, event) != events.end(); });
  }
  ports::DiskRef plugged(const std::string& name) {
    ports::DiskRef found;
    fixture.plug(name);
    const auto session = fixture.disks().createSession({.appeared =
                                                            [&](const ports::DiskRef& disk) {
                                                              if (nameOf(disk) == name) found = disk;
                                                            },
                                                        .disappeared = {},
                                                        .approveUnmount = {}});
    EXPECT_TRUE(fixture.runUntil([&] { return found != nullptr; })) << name << " does not arrive";
    return found;
  }

  struct Outcome {
    int completions = 0;
    bool onMainThread = false;
    std::optional<ports::Dissenter> dissenter;
  };
  ports::DiskCompletion completing(Outcome& outcome) {
    return [this, &outcome](const std::optional<ports::Dissenter>& dissenter) {
      ++outcome.completions;
      outcome.onMainThread = fixture.mainQueue().isMainThread();
      outcome.dissenter = dissenter;
    };
  }
  // What the operation told, which must not be before it returned.
  Outcome outcomeOf(void (ports::DiskArbitration::*operation)(const ports::DiskRef&, ports::DiskCompletion),
                    const ports::DiskRef& disk) {
    Outcome outcome;
    (fixture.disks().*operation)(disk, completing(outcome));
    EXPECT_EQ(outcome.completions, 0) << "completes inside the call";
    EXPECT_TRUE(fixture.runUntil([&] { return outcome.completions > 0; })) << "never completes";
    return outcome;
  }

  Fixture fixture;
};
TYPED_TEST_SUITE_P(DiskArbitrationContract);

TYPED_TEST_P(DiskArbitrationContract, reportsDisksThatArePresentOnceTheQueueRuns) {
  this->fixture.plug("CONTRACT1");
  this->plugged("CONTRACT2");
  typename TestFixture::Events events;
  const auto session = this->sessionRecordingInto(events);
  ASSERT_NE(session, nullptr);
  EXPECT_THAT(events, testing::IsEmpty());
  this->waitFor(events, "+CONTRACT1");
  this->waitFor(events, "+CONTRACT2");
  EXPECT_THAT(events, testing::UnorderedElementsAre("+CONTRACT1", "+CONTRACT2"));
}

TYPED_TEST_P(DiskArbitrationContract, reportsArrivalsAndDepartures) {
  typename TestFixture::Events events;
  const auto session = this->sessionRecordingInto(events);
  this->fixture.plug("CONTRACT1");
  this->waitFor(events, "+CONTRACT1");
  this->fixture.pull("CONTRACT1");
  this->waitFor(events, "-CONTRACT1");
  EXPECT_THAT(events, testing::ElementsAre("+CONTRACT1", "-CONTRACT1"));
}

TYPED_TEST_P(DiskArbitrationContract, reportsToEverySession) {
  typename TestFixture::Events first;
  typename TestFixture::Events second;
  const auto firstSession = this->sessionRecordingInto(first);
  const auto secondSession = this->sessionRecordingInto(second);
  this->fixture.plug("CONTRACT1");
  this->waitFor(first, "+CONTRACT1");
  this->waitFor(second, "+CONTRACT1");
  EXPECT_EQ(first, second);
}

TYPED_TEST_P(DiskArbitrationContract, isSilentOnceTheSessionIsGone) {
  this->plugged("CONTRACT1");
  typename TestFixture::Events gone;
  typename TestFixture::Events witness;
  this->sessionRecordingInto(gone).reset();
  const auto session = this->sessionRecordingInto(witness);
  this->waitFor(witness, "+CONTRACT1");
  EXPECT_THAT(gone, testing::IsEmpty());
}

TYPED_TEST_P(DiskArbitrationContract, letsASessionGoInItsOwnCallback) {
  this->plugged("CONTRACT1");
  this->plugged("CONTRACT2");
  int calls = 0;
  std::unique_ptr<ports::DiskSession> session;
  const auto end = [&](const ports::DiskRef&) {
    ++calls;
    session.reset();
  };
  session = this->fixture.disks().createSession({.appeared = end, .disappeared = end, .approveUnmount = {}});
  typename TestFixture::Events witness;
  const auto other = this->sessionRecordingInto(witness);
  this->waitFor(witness, "+CONTRACT1");
  this->waitFor(witness, "+CONTRACT2");
  EXPECT_EQ(calls, 1);
}

TYPED_TEST_P(DiskArbitrationContract, describesADisk) {
  const auto disk = this->plugged("CONTRACT1");
  const auto description = this->fixture.disks().copyDescription(disk);
  const auto* whole = base::find<bool>(description, ports::kDADiskDescriptionMediaWholeKey);
  ASSERT_NE(whole, nullptr);
  EXPECT_FALSE(*whole);
  EXPECT_NE(base::find<std::string>(description, ports::kDADiskDescriptionMediaBSDNameKey), nullptr);
  EXPECT_GT(base::findNumber(description, ports::kDAAppearanceTimeKey).value_or(0), 0);
  if (const auto* uuid = base::find<std::string>(description, ports::kDADiskDescriptionMediaUUIDKey)) {
    EXPECT_THAT(*uuid, testing::MatchesRegex("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}"));
  }
}

TYPED_TEST_P(DiskArbitrationContract, stillDescribesADiskThatIsGone) {
  typename TestFixture::Events events;
  const auto session = this->sessionRecordingInto(events);
  const auto disk = this->plugged("CONTRACT1");
  this->fixture.pull("CONTRACT1");
  this->waitFor(events, "-CONTRACT1");
  EXPECT_EQ(this->nameOf(disk), "CONTRACT1");
}

TYPED_TEST_P(DiskArbitrationContract, findsTheDiskOfAVolume) {
  this->plugged("CONTRACT1");
  const auto disk = this->fixture.disks().diskFromVolumePath({"/Volumes/CONTRACT1", true});
  ASSERT_NE(disk, nullptr);
  EXPECT_EQ(this->nameOf(disk), "CONTRACT1");
  EXPECT_EQ(this->fixture.disks().diskFromVolumePath({"/Volumes/CONTRACT2", true}), nullptr);
}

TYPED_TEST_P(DiskArbitrationContract, unmounts) {
  const auto disk = this->plugged("CONTRACT1");
  const auto outcome = this->outcomeOf(&ports::DiskArbitration::unmount, disk);
  EXPECT_TRUE(outcome.onMainThread);
  EXPECT_FALSE(outcome.dissenter.has_value()) << outcome.dissenter->statusString;
  EXPECT_EQ(this->fixture.disks().diskFromVolumePath({"/Volumes/CONTRACT1", true}), nullptr);
}

TYPED_TEST_P(DiskArbitrationContract, handsARefusalToWhoAskedForTheUnmount) {
  const auto disk = this->plugged("CONTRACT1");
  bool askedOnMainThread = false;
  const auto session = this->fixture.disks().createSession(
      {.appeared = {}, .disappeared = {}, .approveUnmount = [&](const ports::DiskRef& asked) {
         askedOnMainThread = this->fixture.mainQueue().isMainThread() && this->nameOf(asked) == "CONTRACT1";
         return std::optional(ports::Dissenter{ports::kDAReturnBusy, "Writing."});
       }});
  const auto outcome = this->outcomeOf(&ports::DiskArbitration::unmount, disk);
  EXPECT_TRUE(askedOnMainThread);
  ASSERT_TRUE(outcome.dissenter.has_value());
  EXPECT_EQ(outcome.dissenter->status, ports::kDAReturnBusy);
  EXPECT_EQ(outcome.dissenter->statusString, "Writing.");
  EXPECT_NE(this->fixture.disks().diskFromVolumePath({"/Volumes/CONTRACT1", true}), nullptr);
}

TYPED_TEST_P(DiskArbitrationContract, asksBeforeAMountedDiskIsEjected) {
  const auto disk = this->plugged("CONTRACT1");
  const auto session = this->fixture.disks().createSession(
      {.appeared = {}, .disappeared = {}, .approveUnmount = [](const ports::DiskRef&) {
         return std::optional(ports::Dissenter{ports::kDAReturnBusy, "Writing."});
       }});
  const auto outcome = this->outcomeOf(&ports::DiskArbitration::eject, disk);
  ASSERT_TRUE(outcome.dissenter.has_value());
  EXPECT_EQ(outcome.dissenter->statusString, "Writing.");
}

TYPED_TEST_P(DiskArbitrationContract, asksNoSessionThatIsGone) {
  const auto disk = this->plugged("CONTRACT1");
  this->fixture.disks()
      .createSession({.appeared = {},
                      .disappeared = {},
                      .approveUnmount =
                          [](const ports::DiskRef&) {
                            return std::optional(ports::Dissenter{ports::kDAReturnBusy, "Writing."});
                          }})
      .reset();
  EXPECT_FALSE(this->outcomeOf(&ports::DiskArbitration::unmount, disk).dissenter.has_value());
}

TYPED_TEST_P(DiskArbitrationContract, completesEachOperationOnceOnTheMainThread) {
  const auto disk = this->plugged("CONTRACT1");
  for (const auto operation :
       {&ports::DiskArbitration::unmount, &ports::DiskArbitration::mount, &ports::DiskArbitration::eject}) {
    const auto outcome = this->outcomeOf(operation, disk);
    EXPECT_EQ(outcome.completions, 1);
    EXPECT_TRUE(outcome.onMainThread);
  }
}

TYPED_TEST_P(DiskArbitrationContract, refusesToActOnADiskThatIsGone) {
  typename TestFixture::Events events;
  const auto session = this->sessionRecordingInto(events);
  const auto disk = this->plugged("CONTRACT1");
  this->fixture.pull("CONTRACT1");
  this->waitFor(events, "-CONTRACT1");
  EXPECT_TRUE(this->outcomeOf(&ports::DiskArbitration::mount, disk).dissenter.has_value());
  EXPECT_TRUE(this->outcomeOf(&ports::DiskArbitration::unmount, disk).dissenter.has_value());
}

TYPED_TEST_P(DiskArbitrationContract, claimsFromAnyThreadAndUnmountsAfterwards) {
  const auto disk = this->plugged("CONTRACT1");
  this->fixture.disks().claim(disk);
  std::thread([&] { this->fixture.disks().unclaim(disk); }).join();
  std::thread([&] { this->fixture.disks().claim(disk); }).join();
  this->fixture.disks().unclaim(disk);
  EXPECT_FALSE(this->outcomeOf(&ports::DiskArbitration::unmount, disk).dissenter.has_value());
}

REGISTER_TYPED_TEST_SUITE_P(DiskArbitrationContract, reportsDisksThatArePresentOnceTheQueueRuns,
                            reportsArrivalsAndDepartures, reportsToEverySession, isSilentOnceTheSessionIsGone,
                            letsASessionGoInItsOwnCallback, describesADisk, stillDescribesADiskThatIsGone,
                            findsTheDiskOfAVolume, unmounts, handsARefusalToWhoAskedForTheUnmount,
                            asksBeforeAMountedDiskIsEjected, asksNoSessionThatIsGone,
                            completesEachOperationOnceOnTheMainThread, refusesToActOnADiskThatIsGone,
                            claimsFromAnyThreadAndUnmountsAfterwards);

}  // namespace contract
