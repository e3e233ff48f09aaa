#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/surroundings.h"
#include "platform/linux/message_bus.h"
#include "platform/posix/main_loop.h"
#include "ports/disk_arbitration.h"

// The agent of this user's session, by its name on the session bus. Nothing is asked before it has to be.
// Main thread.
class RunningAgent : public cli::Agent {
 public:
  // The loop outlives this.
  explicit RunningAgent(platform::posix::MainLoop& loop) : loop_(loop) {}

  struct Volume {
    ports::DiskDescription description;
    std::string folder;  // empty: not mounted
  };
  // The volumes that it sees; nothing when no agent runs, or none that answers.
  std::optional<std::vector<Volume>> volumes();

  base::Result<std::string> currentVolume() override;
  base::Result<void> begin(const std::string& volume) override;
  bool isOver() override;
  std::string lastFailure() override;

 private:
  bool connect();
  base::Result<void> follow();
  bool isBusy();

  platform::posix::MainLoop& loop_;
  std::optional<platform::freedesktop::MessageBus> bus_;
  platform::posix::MainLoop::Watch watch_;
  bool mayHaveChanged_ = false;
  bool hasAnswered_ = true;
};
