#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "ports/disk_arbitration.h"
#include "ports/main_queue.h"

namespace platform::posix {

// The sessions of a disk arbitration: compares what each was told with the disks that are present, and tells
// it the difference, on the main queue. Repeats and late calls do no harm. Main thread only.
class DiskSessions {
 public:
  // Disks that are present now, in order of arrival.
  using Present = std::function<std::vector<ports::DiskRef>()>;

  // The queue outlives this; present is not called once this is gone.
  DiskSessions(ports::MainQueue& queue, Present present);
  DiskSessions(const DiskSessions&) = delete;
  DiskSessions& operator=(const DiskSessions&) = delete;

  std::unique_ptr<ports::DiskSession> create(ports::DiskSessionCallbacks callbacks);

  // The disks that are present have changed: every session is told once the queue runs.
  void tell();

  // The first dissenter of a session that is asked to approve of an unmount. On the main queue.
  std::optional<ports::Dissenter> askForUnmount(const ports::DiskRef& disk);

 private:
  struct State;
  class Session;

  std::vector<std::shared_ptr<State>> live();
  void catchUp(const std::shared_ptr<State>& session);

  ports::MainQueue& queue_;
  Present present_;
  std::vector<std::weak_ptr<State>> sessions_;
  bool telling_ = false;
  // Tells closures that are still on their way to the main thread that this is gone.
  std::shared_ptr<DiskSessions*> self_ = std::make_shared<DiskSessions*>(this);
};

}  // namespace platform::posix
