#pragma once

#include <QDBusUnixFileDescriptor>
#include <memory>
#include <string>
#include <vector>

namespace platform::freedesktop {

// Keeps the machine from sleeping, and delays its shutdown, while something is under way; asks logind, and
// does without where there is none. Main thread.
class Inhibitor {
 public:
  // why: a text for the user, "Backing up STICK". Nothing waits for the answer.
  void begin(const std::string& why);
  // Lets go at once.
  void end();

 private:
  struct Holds {
    std::vector<QDBusUnixFileDescriptor> descriptors{};
  };
  // Answers that arrive after end() find nobody.
  std::shared_ptr<Holds> holds_;
};

}  // namespace platform::freedesktop
