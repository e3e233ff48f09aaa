#include "base/operation_queue.h"

#include <atomic>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace base_test {

using base::OperationQueue;
using testing::ElementsAre;
using testing::IsEmpty;

// What happened, in order, on whatever thread.
class Diary {
 public:
  void write(const std::string& entry) {
    const base::MutexLock lock(mutex_);
    entries_.push_back(entry);
  }
  std::vector<std::string> entries() const {
    const base::MutexLock lock(mutex_);
    return entries_;
  }

 private:
  mutable base::Mutex mutex_;
  std::vector<std::string> entries_;
};

// An operation that runs until it is let go.
class HeldOperation {
 public:
  OperationQueue::Operation operation(std::function<void()> atEnd = [] {}) {
    return [this, atEnd = std::move(atEnd)] {
      started_.set_value();
      released_.get_future().wait();
      atEnd();
    };
  }
  void waitUntilStarted() { started_.get_future().wait(); }
  void release() { released_.set_value(); }

 private:
  std::promise<void> started_;
  std::promise<void> released_;
};

class Operations : public testing::Test {
 protected:
  OperationQueue::Operation writing(std::string entry) {
    return [this, entry = std::move(entry)] { diary.write(entry); };
  }
  // Writes down each change that the worker tells, with the number of operations that are left.
  void recordRemovals() {
    queue.addObserver(this, [this] {
      if (std::this_thread::get_id() != adder) diary.write(std::to_string(queue.operationCount()) + " left");
    });
  }

  const std::thread::id adder = std::this_thread::get_id();
  Diary diary;
  OperationQueue queue;
};

TEST_F(Operations, runInOrderOneAtATimeOnAThreadOfTheirOwn) {
  std::atomic<int> running = 0;
  std::vector<int> order;
  std::vector<int> expected;
  for (int i = 0; i < 100; ++i) {
    expected.push_back(i);
    queue.addOperation([&, i] {
      EXPECT_EQ(++running, 1);
      EXPECT_NE(std::this_thread::get_id(), adder);
      order.push_back(i);
      --running;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(order, expected);
}

TEST_F(Operations, areCountedWhileTheyWaitAndRun) {
  EXPECT_EQ(queue.operationCount(), 0U);
  HeldOperation first;
  queue.addOperation(first.operation());
  first.waitUntilStarted();
  queue.addOperation([this] { diary.write(std::to_string(queue.operationCount())); });
  EXPECT_EQ(queue.operationCount(), 2U);
  first.release();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_THAT(diary.entries(), ElementsAre("1"));
  EXPECT_EQ(queue.operationCount(), 0U);
}

TEST_F(Operations, areToldAsAddedOnTheAddingThreadBeforeTheyMayStart) {
  queue.addObserver(this, [this] {
    if (std::this_thread::get_id() == adder) diary.write("added");
  });
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    queue.addOperation(writing("ran"));
    queue.waitUntilAllOperationsAreFinished();
    expected.insert(expected.end(), {"added", "ran"});
  }
  EXPECT_EQ(diary.entries(), expected);
}

TEST_F(Operations, areCountedWhenTheirAdditionIsTold) {
  queue.addObserver(this, [this] {
    if (std::this_thread::get_id() == adder) diary.write(std::to_string(queue.operationCount()));
  });
  HeldOperation first;
  queue.addOperation(first.operation());
  queue.addOperation([] {});
  EXPECT_THAT(diary.entries(), ElementsAre("1", "2"));
  first.release();
  queue.waitUntilAllOperationsAreFinished();
}

TEST_F(Operations, areToldAsGoneBeforeTheNextStarts) {
  recordRemovals();
  HeldOperation first;
  queue.addOperation(first.operation([this] { diary.write("one"); }));
  queue.addOperation(writing("two"));
  queue.addOperation(writing("three"));
  first.release();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_THAT(diary.entries(), ElementsAre("one", "2 left", "two", "1 left", "three", "0 left"));
}

TEST_F(Operations, thatAreCancelledBeforeTheyStartDoNotRunAndLeaveOneByOne) {
  recordRemovals();
  HeldOperation first;
  queue.addOperation(first.operation([this] { diary.write("one"); }));
  queue.addOperation(writing("two"));
  queue.addOperation(writing("three"));
  first.waitUntilStarted();
  queue.cancelAllOperations();
  EXPECT_EQ(queue.operationCount(), 3U);
  first.release();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_THAT(diary.entries(), ElementsAre("one", "2 left", "1 left", "0 left"));
}

TEST_F(Operations, addedAfterACancellationRun) {
  queue.cancelAllOperations();
  queue.addOperation(writing("ran"));
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_THAT(diary.entries(), ElementsAre("ran"));
}

TEST_F(Operations, areAllStoppedByAnObserverThatCancelsWhenTheFirstIsGone) {
  queue.addObserver(this, [this] {
    if (std::this_thread::get_id() != adder) queue.cancelAllOperations();
  });
  HeldOperation first;
  queue.addOperation(first.operation());
  queue.addOperation(writing("two"));
  queue.addOperation(writing("three"));
  first.release();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_THAT(diary.entries(), IsEmpty());
}

TEST_F(Operations, canBeCancelledByTheObserverOfTheirAddition) {
  queue.addObserver(this, [this] { queue.cancelAllOperations(); });
  queue.addOperation(writing("ran"));
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_THAT(diary.entries(), IsEmpty());
}

TEST_F(Operations, mayAddOperationsWhichRunAfterThoseThatWait) {
  HeldOperation first;
  queue.addOperation(first.operation([this] { queue.addOperation(writing("added by the first")); }));
  queue.addOperation(writing("second"));
  first.release();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_THAT(diary.entries(), ElementsAre("second", "added by the first"));
}

TEST_F(Operations, areFinishedOnlyWhenTheLastChangeWasTold) {
  std::atomic<int> told = 0;
  queue.addObserver(this, [&] { ++told; });
  for (int i = 1; i <= 200; ++i) {
    queue.addOperation([] {});
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(told, 2 * i);
  }
}

TEST_F(Operations, neverAddedNeedNoWaiting) {
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(queue.operationCount(), 0U);
}

TEST_F(Operations, letGoOfWhatTheyHoldOnTheWorkerWithoutTheLockAndBeforeTheirRemovalIsTold) {
  recordRemovals();
  const auto noteRelease = [this](void*) {
    diary.write(std::to_string(queue.operationCount()) + (std::this_thread::get_id() == adder
                                                              ? " at a release on the adding thread"
                                                              : " at a release on the worker"));
  };
  HeldOperation first;
  queue.addOperation(first.operation([owned = std::shared_ptr<void>(nullptr, noteRelease)] {}));
  queue.addOperation([owned = std::shared_ptr<void>(nullptr, noteRelease)] {});
  queue.cancelAllOperations();
  first.release();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_THAT(diary.entries(), ElementsAre("2 at a release on the worker", "1 left",
                                           "1 at a release on the worker", "0 left"));
}

class OperationObservers : public Operations {
 protected:
  // Adds an operation, waits for it, and returns who was told of its removal.
  std::vector<std::string> toldOfOneRemoval() {
    const auto before = diary.entries().size();
    queue.addOperation([] {});
    queue.waitUntilAllOperationsAreFinished();
    auto entries = diary.entries();
    entries.erase(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(before));
    return entries;
  }
  void observe(
      const void* who, const std::string& entry, const std::function<void()>& then = [] {}) {
    queue.addObserver(who, [this, entry, then] {
      if (std::this_thread::get_id() == adder) return;
      diary.write(entry);
      then();
    });
  }

  const int alice = 0;
  const int bob = 0;
};

TEST_F(OperationObservers, areToldInTheOrderOfTheirRegistration) {
  observe(&bob, "Bob");
  observe(&alice, "Alice");
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Bob", "Alice"));
}

TEST_F(OperationObservers, areToldOnceForEachRegistration) {
  observe(&alice, "Alice");
  observe(&alice, "Alice");
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Alice", "Alice"));
}

TEST_F(OperationObservers, takeBackOneRegistrationWithEachRemoval) {
  observe(&alice, "Alice");
  observe(&bob, "Bob");
  observe(&alice, "Alice");
  queue.removeObserver(&alice);
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Alice", "Bob"));
  queue.removeObserver(&alice);
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Bob"));
}

TEST_F(OperationObservers, canBeRemovedWithoutBeingRegistered) {
  queue.removeObserver(&alice);
  observe(&bob, "Bob");
  queue.removeObserver(&alice);
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Bob"));
}

TEST_F(OperationObservers, thatStoodWhenAChangeHappenedAreToldEvenIfRemovedMeanwhile) {
  observe(&alice, "Alice", [this] { queue.removeObserver(&bob); });
  observe(&bob, "Bob");
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Alice", "Bob"));
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Alice"));
}

TEST_F(OperationObservers, addedWhileAChangeIsToldAreToldOfTheNext) {
  observe(&alice, "Alice", [this] { observe(&bob, "Bob"); });
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Alice"));
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Alice", "Bob"));
}

TEST_F(OperationObservers, mayRemoveThemselves) {
  observe(&alice, "Alice", [this] { queue.removeObserver(&alice); });
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Alice"));
  EXPECT_THAT(toldOfOneRemoval(), IsEmpty());
}

TEST_F(OperationObservers, mayUseTheQueueWhenTheyAreLetGoOf) {
  std::shared_ptr<void> owned(nullptr, [this](void*) { queue.removeObserver(&bob); });
  observe(&bob, "Bob");
  queue.addObserver(&alice, [owned] {});
  owned.reset();
  EXPECT_THAT(toldOfOneRemoval(), ElementsAre("Bob"));
  queue.removeObserver(&alice);
  EXPECT_THAT(toldOfOneRemoval(), IsEmpty());
}

TEST_F(Operations, areRefusedByAClosedQueue) {
  queue.addObserver(this, [this] { diary.write("told"); });
  queue.close();
  queue.addOperation(writing("ran"));
  EXPECT_EQ(queue.operationCount(), 0U);
  queue.waitUntilAllOperationsAreFinished();
  queue.close();
  EXPECT_THAT(diary.entries(), IsEmpty());
}

// Adds operations until the queue takes no more.
void addUntilClosed(OperationQueue& queue, const OperationQueue::Operation& operation) {
  std::size_t before = 0;
  do {
    before = queue.operationCount();
    queue.addOperation(operation);
  } while (queue.operationCount() != before);
}

TEST_F(Operations, thatRunAreWaitedForByCloseAndThoseThatWaitAreCancelled) {
  HeldOperation first;
  queue.addOperation(first.operation([this] {
    addUntilClosed(queue, writing("added while the first ran"));
    diary.write("one");
  }));
  queue.addOperation(writing("two"));
  first.waitUntilStarted();
  first.release();
  queue.close();
  EXPECT_THAT(diary.entries(), ElementsAre("one"));
  EXPECT_EQ(queue.operationCount(), 0U);
}

TEST_F(Operations, thatAddOperationsWithoutEndAreEndedByClose) {
  std::promise<void> running;
  std::atomic<int> runs = 0;
  std::function<void()> again = [&] {
    if (++runs == 10) running.set_value();
    queue.addOperation(again);
  };
  queue.addOperation(again);
  running.get_future().wait();
  queue.close();
  EXPECT_EQ(queue.operationCount(), 0U);
}

TEST(DestroyedOperationQueue, waitsForTheOperationThatRunsAndCancelsTheRest) {
  Diary diary;
  HeldOperation first;
  auto queue = std::make_unique<OperationQueue>();
  queue->addOperation(first.operation([&, &operations = *queue] {
    addUntilClosed(operations, [&] { diary.write("two"); });
    diary.write("one");
  }));
  first.waitUntilStarted();
  first.release();
  queue.reset();
  EXPECT_THAT(diary.entries(), ElementsAre("one"));
}

TEST_F(Operations, canBeAddedCountedCancelledAndObservedOnSeveralThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 100;
  std::atomic<int> ran = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      const int who = 0;
      for (int round = 0; round < kRounds; ++round) {
        queue.addObserver(&who, [&] { EXPECT_LE(queue.operationCount(), std::size_t{kThreads * kRounds}); });
        queue.addOperation([&] { ++ran; });
        queue.removeObserver(&who);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran, kThreads * kRounds);
  queue.cancelAllOperations();
}

}  // namespace base_test
