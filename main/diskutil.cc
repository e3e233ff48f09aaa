#include "tools/diskutil.h"

#include <csignal>
#include <iostream>

#include "main/disk_eraser.h"

int main(int count, char** arguments) {
  // What is begun is finished: half an erased disk is of no use to anybody.
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) std::signal(signal, SIG_IGN);
  return tools::diskutil({arguments + 1, arguments + count},
                         {.out = std::cout, .error = std::cerr, .erase = eraseDisk});
}
