#include "platform/posix/stderr_log.h"

#include <algorithm>
#include <syslog.h>
#include <unistd.h>

#include "platform/posix/sigpipe_blocked.h"

namespace platform::posix {

StderrLog::StderrLog(Syslog syslog) : syslog_(syslog) {
  if (syslog_ == Syslog::too) ::openlog("stashwick", LOG_PID, LOG_USER);
}

void StderrLog::log(const std::string& line) {
  auto text = line;
  const auto isControl = [](unsigned char c) { return (c < 0x20 && c != '\n' && c != '\t') || c == 0x7F; };
  std::ranges::replace_if(text, isControl, '?');
  if (syslog_ == Syslog::too) ::syslog(LOG_NOTICE, "%s", text.c_str());
  text.push_back('\n');
  const SigpipeBlocked blocked;
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace platform::posix
