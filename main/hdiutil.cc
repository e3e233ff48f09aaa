#include "tools/hdiutil.h"

#include <atomic>
#include <csignal>
#include <iostream>
#include <sys/prctl.h>
#include <unistd.h>

#include "image/os/host.h"

namespace {

std::atomic<bool> interrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free);

void interrupt(int) { interrupted = true; }

void watchSignals() {
  struct sigaction action {};
  action.sa_handler = interrupt;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGHUP, &action, nullptr);
  // A write beyond a limit, or to a reader who left, is an error like any other.
  action.sa_handler = SIG_IGN;
  ::sigaction(SIGXFSZ, &action, nullptr);
  ::sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace

int main(int count, char** arguments) {
  // A crash must not leave a password or key in a core file.
  ::prctl(PR_SET_DUMPABLE, 0);
  watchSignals();
  return tools::hdiutil({arguments + 1, arguments + count},
                        {.out = std::cout,
                         .error = std::cerr,
                         .readPassword = [] { return image::os::readPassword(0); },
                         .errorIsTerminal = ::isatty(2) == 1,
                         .cancelled = interrupted});
}
