#pragma once

#include <memory>
#include <string>

#include "ports/system_log.h"

namespace platform::freedesktop {

// Plays sound files through libcanberra, from a thread of its own: a sound server that hangs would hold its
// caller up. Any thread.
class SoundPlayer {
 public:
  explicit SoundPlayer(ports::SystemLog& log);
  // Does not wait for a server that hangs: its thread is left to itself then, until the process ends.
  ~SoundPlayer();
  SoundPlayer(const SoundPlayer&) = delete;
  SoundPlayer& operator=(const SoundPlayer&) = delete;

  // Returns at once. What cannot be played is logged, once for each reason.
  void play(std::string file);

 private:
  class Worker;
  std::shared_ptr<Worker> worker_;
};

}  // namespace platform::freedesktop
