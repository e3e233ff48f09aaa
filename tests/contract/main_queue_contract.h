#pragma once

#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "ports/main_queue.h"

namespace contract {

// What every main queue keeps to. A fixture is made on the main thread and has
//   ports::MainQueue& queue();
//   bool runUntil(condition);  serves the queue until condition() is true; false when that takes too long
//   void end();                ends the loop for good
template <class Fixture>
class MainQueueContract : public testing::Test {
 protected:
  Fixture fixture;
};
TYPED_TEST_SUITE_P(MainQueueContract);

TYPED_TEST_P(MainQueueContract, knowsTheMainThread) {
  auto& queue = this->fixture.queue();
  bool elsewhere = true;
  std::thread([&] { elsewhere = queue.isMainThread(); }).join();
  EXPECT_TRUE(queue.isMainThread());
  EXPECT_FALSE(elsewhere);
}

TYPED_TEST_P(MainQueueContract, runsClosuresLaterAndInOrder) {
  std::string ran;
  for (const char letter : {'a', 'b', 'c'}) {
    this->fixture.queue().post([&ran, letter] { ran += letter; });
  }
  EXPECT_EQ(ran, "");
  EXPECT_TRUE(this->fixture.runUntil([&] { return ran.size() >= 3; }));
  EXPECT_EQ(ran, "abc");
}

TYPED_TEST_P(MainQueueContract, runsOnTheMainThreadWhatAnotherThreadPosts) {
  auto& queue = this->fixture.queue();
  bool ran = false;
  bool onMainThread = false;
  std::thread poster([&] {
    queue.post([&] {
      onMainThread = queue.isMainThread();
      ran = true;
    });
  });
  EXPECT_TRUE(this->fixture.runUntil([&] { return ran; }));
  poster.join();
  EXPECT_TRUE(onMainThread);
}

TYPED_TEST_P(MainQueueContract, runsWhatAClosurePostsAfterTheClosure) {
  auto& queue = this->fixture.queue();
  std::string ran;
  queue.post([&] {
    queue.post([&] { ran += "inner"; });
    ran += "outer ";
  });
  EXPECT_TRUE(this->fixture.runUntil([&] { return ran.ends_with("inner"); }));
  EXPECT_EQ(ran, "outer inner");
}

TYPED_TEST_P(MainQueueContract, runsDelayedClosuresInTheOrderOfTheirTimes) {
  auto& queue = this->fixture.queue();
  std::string ran;
  queue.postAfter(0.2, [&] { ran += "late"; });
  queue.postAfter(0.01, [&] { ran += "early "; });
  queue.post([&] { ran += "now "; });
  EXPECT_EQ(ran, "");
  EXPECT_TRUE(this->fixture.runUntil([&] { return ran.ends_with("late"); }));
  EXPECT_EQ(ran, "now early late");
}

TYPED_TEST_P(MainQueueContract, takesADelayFromAnotherThread) {
  auto& queue = this->fixture.queue();
  bool ran = false;
  std::thread([&] { queue.postAfter(0.01, [&] { ran = true; }); }).join();
  EXPECT_TRUE(this->fixture.runUntil([&] { return ran; }));
}

TYPED_TEST_P(MainQueueContract, performsAtOnceOnTheMainThread) {
  bool ran = false;
  EXPECT_TRUE(this->fixture.queue().performAndWait([&] { ran = true; }));
  EXPECT_TRUE(ran);
}

TYPED_TEST_P(MainQueueContract, performsForAnotherThreadWhichWaits) {
  auto& queue = this->fixture.queue();
  bool onMainThread = false;
  bool performed = false;
  bool doneWhenItReturned = false;
  bool returned = false;
  std::thread worker([&] {
    performed = queue.performAndWait([&] { onMainThread = queue.isMainThread(); });
    doneWhenItReturned = onMainThread;
    queue.post([&] { returned = true; });
  });
  EXPECT_TRUE(this->fixture.runUntil([&] { return returned; }));
  worker.join();
  EXPECT_TRUE(performed);
  EXPECT_TRUE(doneWhenItReturned);
}

TYPED_TEST_P(MainQueueContract, performsNothingForOthersOnceItHasEnded) {
  this->fixture.end();
  bool performed = true;
  bool ran = false;
  std::thread([&] { performed = this->fixture.queue().performAndWait([&] { ran = true; }); }).join();
  EXPECT_FALSE(performed);
  EXPECT_FALSE(ran);
}

TYPED_TEST_P(MainQueueContract, tellsWhoWaitsThatItEnds) {
  bool performed = true;
  bool ran = false;
  std::thread worker([&] { performed = this->fixture.queue().performAndWait([&] { ran = true; }); });
  this->fixture.end();
  worker.join();
  EXPECT_FALSE(performed);
  EXPECT_FALSE(ran);
}

REGISTER_TYPED_TEST_SUITE_P(MainQueueContract, knowsTheMainThread, runsClosuresLaterAndInOrder,
                            runsOnTheMainThreadWhatAnotherThreadPosts, runsWhatAClosurePostsAfterTheClosure,
                            runsDelayedClosuresInTheOrderOfTheirTimes, takesADelayFromAnotherThread,
                            performsAtOnceOnTheMainThread, performsForAnotherThreadWhichWaits,
                            performsNothingForOthersOnceItHasEnded, tellsWhoWaitsThatItEnds);

}  // namespace contract
