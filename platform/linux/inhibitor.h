#pragma once

#include <QDBusPendingCall>
#include <string>
#include <vector>

namespace platform::freedesktop {

// Keeps the machine from sleeping, and delays its shutdown, while something is under way; asks logind, and
// does without where there is none. Any thread, one at a time; no event loop is needed, and nothing waits for
// the answer.
class Inhibitor {
 public:
  // why: a text for the user, "Backing up STICK".
  void begin(const std::string& why);
  // Lets go at once; of what is granted later, when it comes.
  void end() { holds_.clear(); }

 private:
  // The descriptor in an answer is the hold: it is closed with the call.
  std::vector<QDBusPendingCall> holds_;
};

}  // namespace platform::freedesktop
