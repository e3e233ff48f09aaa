#include "platform/posix/sigpipe_blocked.h"

#include <ctime>

namespace platform::posix {
namespace {

bool isPending() {
  sigset_t pending;
  sigemptyset(&pending);
  ::sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

SigpipeBlocked::SigpipeBlocked() : wasPending_(isPending()) {
  sigemptyset(&sigpipe_);
  sigaddset(&sigpipe_, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
}

SigpipeBlocked::~SigpipeBlocked() {
  const timespec atOnce{};
  if (!wasPending_ && isPending()) ::sigtimedwait(&sigpipe_, nullptr, &atOnce);
  ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace platform::posix
