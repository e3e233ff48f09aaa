#include "platform/fake/world.h"

#include <atomic>
#include <thread>

namespace platform::fake {

bool World::runUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    const auto seen = changes.count();
    runMainQueue();
    if (condition()) return true;
    if (changes.waitForMoreThan(seen, deadline)) continue;
    failure("what the test waits for did not come about: nothing in the world changed for too long");
    return false;
  }
}

void World::runWhile(const std::function<void()>& blockingCall) {
  std::atomic<bool> returned = false;
  std::thread caller([&] {
    blockingCall();
    returned = true;
    wake();
  });
  runUntil([&] { return returned.load(); });
  caller.join();
}

}  // namespace platform::fake
