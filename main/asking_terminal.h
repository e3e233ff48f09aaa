#pragma once

#include <string>

#include "cli/surroundings.h"
#include "platform/posix/main_loop.h"

// Questions on standard error, answers from standard input. The loop is served while somebody types, so that
// a signal ends the waiting. Main thread.
class AskingTerminal : public cli::Terminal {
 public:
  explicit AskingTerminal(platform::posix::MainLoop& loop) : loop_(loop) {}

  bool isAttended() const override;
  std::optional<std::string> ask(const std::string& question) override;
  std::optional<base::Secret> askPassword(const std::string& question) override;
  base::Result<base::Secret> readPassword() override;
  base::Result<base::Secret> readPasswordFile(const std::string& path) override;

 private:
  // Without its line feed; nullopt when nothing comes before the end of input, or at an interruption.
  std::optional<base::Secret> readLine();

  platform::posix::MainLoop& loop_;
};
