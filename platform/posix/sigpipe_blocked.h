#pragma once

#include <csignal>

namespace platform::posix {

// While it lives, a write of this thread into a pipe that nobody reads fails with EPIPE and nothing else.
class SigpipeBlocked {
 public:
  SigpipeBlocked();
  ~SigpipeBlocked();
  SigpipeBlocked(const SigpipeBlocked&) = delete;
  SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;

 private:
  sigset_t sigpipe_;
  sigset_t before_;
  bool wasPending_;
};

}  // namespace platform::posix
