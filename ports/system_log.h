#pragma once

#include <string>

namespace ports {

// The system log: one line a call. Any thread.
class SystemLog {
 public:
  virtual ~SystemLog() = default;
  virtual void log(const std::string& line) = 0;
};

}  // namespace ports
