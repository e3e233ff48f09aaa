#include "platform/posix/main_loop.h"

#include <array>
#include <atomic>
#include <csignal>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using platform::posix::FileDescriptor;
using platform::posix::MainLoop;

namespace {

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe(ends.data()), 0);
    readEnd = FileDescriptor(ends[0]);
    writeEnd = FileDescriptor(ends[1]);
  }
  void put(char c) const { EXPECT_EQ(::write(writeEnd.get(), &c, 1), 1); }
  std::string take() const {
    std::array<char, 16> bytes{};
    const auto got = ::read(readEnd.get(), bytes.data(), bytes.size());
    return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
  }

  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

TEST(MainLoop, runsWhatIsPostedInOrderAndReturnsTheExitCode) {
  MainLoop loop;
  std::string order;
  loop.post([&] { order += 'a'; });
  loop.post([&] {
    order += 'b';
    loop.post([&] {
      order += 'd';
      loop.stop(7);
    });
  });
  loop.post([&] { order += 'c'; });
  EXPECT_EQ(loop.run(), 7);
  EXPECT_EQ(order, "abcd");
}

TEST(MainLoop, stopsBeforeTheNextClosure) {
  MainLoop loop;
  bool ran = false;
  loop.post([&] { loop.stop(); });
  loop.post([&] { ran = true; });
  loop.run();
  EXPECT_FALSE(ran);
}

TEST(MainLoop, runsDelayedClosuresInTheOrderOfTheirTimes) {
  MainLoop loop;
  std::string order;
  const auto begin = std::chrono::steady_clock::now();
  loop.postAfter(0.03, [&] {
    order += 'c';
    loop.stop();
  });
  loop.postAfter(0.01, [&] { order += 'b'; });
  loop.postAfter(0, [&] { order += 'a'; });
  loop.run();
  EXPECT_EQ(order, "abc");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
}

TEST(MainLoop, sleepsUntilSomethingHappens) {
  MainLoop loop;
  loop.postAfter(0.2, [] {});
  int wakeUps = 0;
  bool over = false;
  loop.postAfter(0.2, [&] { over = true; });
  loop.runUntil([&] {
    ++wakeUps;
    return over;
  });
  EXPECT_LE(wakeUps, 8);
}

TEST(MainLoop, knowsTheMainThread) {
  MainLoop loop;
  EXPECT_TRUE(loop.isMainThread());
  EXPECT_FALSE(std::async(std::launch::async, [&] { return loop.isMainThread(); }).get());
}

TEST(MainLoop, performsForAnotherThreadAndLetsItWait) {
  MainLoop loop;
  std::thread::id ranOn;
  auto worker = std::async(std::launch::async, [&] {
    const bool ran = loop.performAndWait([&] { ranOn = std::this_thread::get_id(); });
    const bool seen = ranOn != std::thread::id();
    loop.stop();
    return ran && seen;
  });
  loop.run();
  EXPECT_TRUE(worker.get());
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(MainLoop, performsAtOnceOnTheMainThread) {
  MainLoop loop;
  bool ran = false;
  EXPECT_TRUE(loop.performAndWait([&] { ran = true; }));
  EXPECT_TRUE(ran);
}

TEST(MainLoop, releasesWhoWaitsWhenItEnds) {
  MainLoop loop;
  std::atomic<bool> ran = false;
  auto waiter = std::async(std::launch::async, [&] { return loop.performAndWait([&] { ran = true; }); });
  loop.close();
  EXPECT_FALSE(waiter.get());
  EXPECT_FALSE(ran);
  EXPECT_FALSE(loop.performAndWait([&] { ran = true; }));
  EXPECT_FALSE(
      std::async(std::launch::async, [&] { return loop.performAndWait([&] { ran = true; }); }).get());
  EXPECT_FALSE(ran);
}

TEST(MainLoop, dropsWhatWasPostedWhenItEnds) {
  MainLoop loop;
  const auto owned = std::make_shared<int>(1);
  loop.post([owned] {});
  loop.postAfter(1000, [owned] {});
  loop.close();
  loop.post([owned] {});
  loop.postAfter(0, [owned] {});
  EXPECT_EQ(owned.use_count(), 1);
}

TEST(MainLoop, releasesManyWaitersWhileItIsStopped) {
  MainLoop loop;
  std::vector<std::thread> workers;
  std::atomic<int> ran = 0;
  std::atomic<int> toldSo = 0;
  for (int i = 0; i < 8; ++i) {
    workers.emplace_back([&] {
      while (loop.performAndWait([&] {
        if (++ran == 200) loop.stop();
      })) {
        ++toldSo;
      }
    });
  }
  loop.run();
  for (auto& worker : workers) worker.join();
  EXPECT_EQ(ran, 200);
  EXPECT_EQ(toldSo, 200);
}

TEST(MainLoop, callsTheHandlerOfAReadableDescriptor) {
  MainLoop loop;
  Pipe pipe;
  std::string got;
  const auto watch = loop.watch(pipe.readEnd.get(), [&] {
    got += pipe.take();
    if (got.size() == 2) loop.stop();
  });
  pipe.put('x');
  loop.post([&] { pipe.put('y'); });
  loop.run();
  EXPECT_EQ(got, "xy");
}

TEST(MainLoop, callsTheHandlerAtTheEndOfADescriptor) {
  MainLoop loop;
  Pipe pipe;
  pipe.writeEnd.reset();
  std::optional<std::string> got;
  MainLoop::Watch watch;
  watch = loop.watch(pipe.readEnd.get(), [&] {
    got = pipe.take();
    watch.reset();
    loop.postAfter(0.01, [&] { loop.stop(); });
  });
  loop.run();
  EXPECT_EQ(got, "");
}

TEST(MainLoop, callsNoHandlerWhoseWatchIsGone) {
  MainLoop loop;
  Pipe pipe;
  pipe.put('x');
  int calls = 0;
  MainLoop::Watch first;
  MainLoop::Watch second;
  const auto dropBoth = [&] {
    ++calls;
    first.reset();
    second.reset();
    loop.postAfter(0.01, [&] { loop.stop(); });
  };
  first = loop.watch(pipe.readEnd.get(), dropBoth);
  second = loop.watch(pipe.readEnd.get(), dropBoth);
  loop.run();
  EXPECT_EQ(calls, 1);
}

TEST(MainLoop, holdsEverythingButItsOwnWatchesWhileAModalRuns) {
  MainLoop loop;
  Pipe keys;
  Pipe disks;
  std::string order;
  const auto key = loop.watch(
      keys.readEnd.get(), [&] { order += keys.take(); }, MainLoop::InModals::served);
  const auto disk = loop.watch(disks.readEnd.get(), [&] { order += disks.take(); });
  loop.post([&] {
    loop.post([&] { order += 'p'; });
    loop.postAfter(0, [&] { order += 't'; });
    disks.put('d');
    keys.put('k');
    const MainLoop::ModalScope modal(loop);
    EXPECT_TRUE(loop.runUntil([&] { return !order.empty(); }));
    EXPECT_EQ(order, "k");
  });
  EXPECT_TRUE(loop.runUntil([&] { return order.size() == 4; }));
  EXPECT_THAT(order.substr(1), testing::UnorderedElementsAre('d', 'p', 't'));
}

TEST(MainLoop, endsAModalWhenItIsStopped) {
  MainLoop loop;
  std::optional<bool> answered;
  std::thread worker;
  loop.post([&] {
    const MainLoop::ModalScope modal(loop);
    worker = std::thread([&] { loop.stop(3); });
    answered = loop.runUntil([] { return false; });
  });
  EXPECT_EQ(loop.run(), 3);
  worker.join();
  EXPECT_EQ(answered, false);
}

TEST(MainLoop, handsSignalsToTheirHandlerOnTheMainThread) {
  sigset_t before;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
  {
    MainLoop loop;
    int got = 0;
    loop.handleSignals({SIGUSR1, SIGTERM}, [&](int signal) {
      EXPECT_TRUE(loop.isMainThread());
      got = signal;
      loop.stop();
    });
    ::kill(::getpid(), SIGTERM);
    loop.run();
    EXPECT_EQ(got, SIGTERM);
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
