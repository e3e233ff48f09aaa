#include "platform/posix/disk_sessions.h"

#include <algorithm>
#include <utility>

namespace platform::posix {

struct DiskSessions::State {
  ports::DiskSessionCallbacks callbacks;
  std::vector<ports::DiskRef> told{};
  bool alive = true;
};

class DiskSessions::Session : public ports::DiskSession {
 public:
  explicit Session(std::shared_ptr<State> state) : state_(std::move(state)) {}
  ~Session() override { state_->alive = false; }

 private:
  std::shared_ptr<State> state_;
};

DiskSessions::DiskSessions(ports::MainQueue& queue, Present present)
    : queue_(queue), present_(std::move(present)) {}

std::unique_ptr<ports::DiskSession> DiskSessions::create(ports::DiskSessionCallbacks callbacks) {
  const auto state = std::make_shared<State>(State{.callbacks = std::move(callbacks)});
  sessions_.push_back(state);
  queue_.post([this, state, self = std::weak_ptr(self_)] {
    if (self.lock()) catchUp(state);
  });
  return std::make_unique<Session>(state);
}

void DiskSessions::tell() {
  if (std::exchange(telling_, true)) return;
  queue_.post([this, weakSelf = std::weak_ptr(self_)] {
    const auto self = weakSelf.lock();
    if (!self) return;
    telling_ = false;
    for (const auto& session : live()) catchUp(session);
  });
}

std::optional<ports::Dissenter> DiskSessions::askForUnmount(const ports::DiskRef& disk) {
  for (const auto& session : live()) {
    if (!session->alive || !session->callbacks.approveUnmount) continue;
    if (auto dissenter = session->callbacks.approveUnmount(disk)) return dissenter;
  }
  return std::nullopt;
}

std::vector<std::shared_ptr<DiskSessions::State>> DiskSessions::live() {
  std::vector<std::shared_ptr<State>> live;
  for (const auto& weak : sessions_) {
    const auto session = weak.lock();
    if (session && session->alive) live.push_back(session);
  }
  sessions_.assign(live.begin(), live.end());
  return live;
}

void DiskSessions::catchUp(const std::shared_ptr<State>& session) {
  const auto tell = [&session](const auto& callback, const ports::DiskRef& disk) {
    if (session->alive && callback) callback(disk);
  };
  const auto present = present_();
  const auto contains = [](const auto& disks, const ports::DiskRef& disk) {
    return std::ranges::find(disks, disk) != disks.end();
  };
  for (const auto& disk : std::vector(session->told)) {
    if (contains(present, disk)) continue;
    std::erase(session->told, disk);
    tell(session->callbacks.disappeared, disk);
  }
  for (const auto& disk : present) {
    if (contains(session->told, disk)) continue;
    session->told.push_back(disk);
    tell(session->callbacks.appeared, disk);
  }
}

}  // namespace platform::posix
