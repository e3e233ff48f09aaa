#include "base/notification_center.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace base_test {

using base::NotificationCenter;
using testing::ElementsAre;
using testing::IsEmpty;

class Notifications : public testing::Test {
 protected:
  NotificationCenter::Token record(std::string_view name, const std::string& text,
                                   NotificationCenter::Delivery delivery = nullptr) {
    return center.addObserver(name, std::move(delivery),
                              [this, text](const base::Notification&) { told.push_back(text); });
  }

  NotificationCenter center;
  std::vector<std::string> told;
};

TEST_F(Notifications, reachTheObserversOfTheirNameInTheOrderOfAdding) {
  record("mounted", "first");
  record("unmounted", "of another name");
  record("mounted", "second");
  record("mounted", "third");
  center.post("mounted");
  EXPECT_THAT(told, ElementsAre("first", "second", "third"));
}

TEST_F(Notifications, reachNobodyWhenNobodyObservesTheName) {
  record("mounted", "mounted");
  center.post("Mounted");
  center.post("");
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(Notifications, carryTheirNameAndObject) {
  std::vector<base::Notification> received;
  center.addObserver("mounted", nullptr, [&](const auto& notification) { received.push_back(notification); });
  center.post("mounted", std::string("STICK"));
  center.post("mounted");
  ASSERT_EQ(received.size(), 2U);
  EXPECT_EQ(received[0].name, "mounted");
  EXPECT_EQ(std::any_cast<std::string>(received[0].object), "STICK");
  EXPECT_FALSE(received[1].object.has_value());
}

TEST_F(Notifications, areHandedToTheDeliveryWhichRunsTheObserver) {
  record("reloaded", "observer", [this](const std::function<void()>& deliver) {
    told.push_back("before");
    deliver();
    told.push_back("after");
  });
  record("reloaded", "next observer");
  center.post("reloaded");
  EXPECT_THAT(told, ElementsAre("before", "observer", "after", "next observer"));
}

TEST_F(Notifications, canBeDeliveredOnAnotherThread) {
  std::thread::id deliveredOn;
  std::thread::id workerId;
  center.addObserver(
      "reloaded",
      [&](const std::function<void()>& deliver) {
        std::thread worker(deliver);
        workerId = worker.get_id();
        worker.join();
      },
      [&](const auto&) { deliveredOn = std::this_thread::get_id(); });
  center.post("reloaded");
  EXPECT_EQ(deliveredOn, workerId);
  EXPECT_NE(deliveredOn, std::this_thread::get_id());
}

TEST_F(Notifications, areNotSeenByAnObserverWhoseDeliveryDropsThem) {
  record("reloaded", "never", [](const std::function<void()>&) {});
  center.post("reloaded");
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(Notifications, reachAnObserverOnceForEachTimeItWasAdded) {
  record("mounted", "twice");
  record("mounted", "twice");
  center.post("mounted");
  EXPECT_THAT(told, ElementsAre("twice", "twice"));
}

TEST_F(Notifications, doNotReachARemovedObserver) {
  const auto first = record("mounted", "first");
  record("mounted", "second");
  center.removeObserver(first);
  center.post("mounted");
  EXPECT_THAT(told, ElementsAre("second"));
}

TEST_F(Notifications, losingAnObserverTwiceOrOneThatNeverWasIsHarmless) {
  const auto first = record("mounted", "first");
  record("mounted", "second");
  center.removeObserver(first);
  center.removeObserver(first);
  center.removeObserver(NotificationCenter::Token{12345});
  center.post("mounted");
  EXPECT_THAT(told, ElementsAre("second"));
}

TEST_F(Notifications, doNotReachObserversAddedWhileTheyAreDelivered) {
  center.addObserver("mounted", nullptr, [this](const auto&) { record("mounted", "added late"); });
  center.post("mounted");
  EXPECT_THAT(told, IsEmpty());
  center.post("mounted");
  EXPECT_THAT(told, ElementsAre("added late"));
}

TEST_F(Notifications, doNotReachObserversRemovedBeforeTheirTurn) {
  NotificationCenter::Token second = 0;
  center.addObserver("mounted", nullptr, [&](const auto&) { center.removeObserver(second); });
  second = record("mounted", "removed by the one before");
  record("mounted", "third");
  center.post("mounted");
  EXPECT_THAT(told, ElementsAre("third"));
}

TEST_F(Notifications, doNotReachAnObserverRemovedWhileItsDeliveryWaits) {
  NotificationCenter::Token token = 0;
  token = record("mounted", "removed meanwhile", [&](const std::function<void()>& deliver) {
    center.removeObserver(token);
    deliver();
  });
  center.post("mounted");
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(Notifications, mayBePostedAndObserversRemovedByAnObserver) {
  NotificationCenter::Token self = 0;
  self = center.addObserver("mounted", nullptr, [&](const auto&) {
    told.push_back("mounted");
    center.removeObserver(self);
    center.post("reloaded");
  });
  record("reloaded", "reloaded");
  record("mounted", "last");
  center.post("mounted");
  center.post("mounted");
  EXPECT_THAT(told, ElementsAre("mounted", "reloaded", "last", "last"));
}

TEST_F(Notifications, canBePostedByWhatARemovedObserverLetsGoOf) {
  record("released", "released");
  std::shared_ptr<void> owned(nullptr, [this](void*) { center.post("released"); });
  const auto token = center.addObserver("mounted", nullptr, [owned](const auto&) {});
  owned.reset();
  EXPECT_THAT(told, IsEmpty());
  center.removeObserver(token);
  EXPECT_THAT(told, ElementsAre("released"));
}

TEST_F(Notifications, canBePostedAddedToAndRemovedFromOnSeveralThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::atomic<int> counted = 0;
  center.addObserver("mounted", nullptr, [&](const auto&) { ++counted; });
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        const auto token = center.addObserver("mounted", nullptr, [](const auto&) {});
        center.post("mounted", round);
        center.removeObserver(token);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counted, kThreads * kRounds);
}

}  // namespace base_test
