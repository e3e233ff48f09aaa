#pragma once

#include "ports/system_log.h"

namespace platform::posix {

// Each text goes to standard error with one write, and to syslog(3) when asked for. Control characters but
// line feed and tab are shown as "?".
class StderrLog : public ports::SystemLog {
 public:
  enum class Syslog { no, too };
  explicit StderrLog(Syslog syslog = Syslog::no);

  void log(const std::string& line) override;

 private:
  const Syslog syslog_;
};

}  // namespace platform::posix
