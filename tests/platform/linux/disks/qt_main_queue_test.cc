#include "platform/linux/qt_main_queue.h"

#include <csignal>
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "tests/platform/linux/disks/qt_loop.h"

namespace platform::freedesktop {
namespace {

TEST(QtMainQueue, holdsClosuresWhileAnAlertIsOpen) {
  QtLoop loop;
  std::string ran;
  std::optional<QtMainQueue::ModalScope> alert;
  loop.queue.post([&] { alert.emplace(loop.queue); });
  loop.queue.post([&] { ran += "posted "; });
  loop.queue.postAfter(0, [&] { ran += "delayed "; });
  EXPECT_TRUE(loop.runUntil([&] { return alert.has_value(); }));
  bool qtServed = false;
  QTimer::singleShot(10, [&] { qtServed = true; });
  EXPECT_TRUE(loop.runUntil([&] { return qtServed; }));
  EXPECT_EQ(ran, "");
  alert.reset();
  EXPECT_TRUE(loop.runUntil([&] { return ran.size() >= 15; }));
  EXPECT_EQ(ran, "posted delayed ");
}

TEST(QtMainQueue, servesOthersWhileAClosureRunsALoopOfQts) {
  QtLoop loop;
  bool innerRan = false;
  bool outerRan = false;
  loop.queue.post([&] { outerRan = loop.runUntil([&] { return innerRan; }); });
  loop.queue.post([&] { innerRan = true; });
  EXPECT_TRUE(loop.runUntil([&] { return outerRan; }));
}

TEST(QtMainQueue, handlesASignalWhileNothingElseHappens) {
  QtLoop loop;
  int handled = 0;
  loop.queue.handleSignals({SIGUSR1}, [&](int signal) { handled = signal; });
  bool idle = false;
  QTimer::singleShot(10, [&] {
    idle = true;
    std::raise(SIGUSR1);
  });
  EXPECT_TRUE(loop.runUntil([&] { return handled != 0; }));
  EXPECT_TRUE(idle);
  EXPECT_EQ(handled, SIGUSR1);
}

}  // namespace
}  // namespace platform::freedesktop
