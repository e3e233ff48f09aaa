#pragma once

#include <functional>
#include <string>

namespace platform::fake {

// What happens when the system under test, or the test, does what this world cannot go along with. Prints the
// message and aborts the program, unless a test about the world itself puts something else in its place.
class Failure {
 public:
  void operator()(const std::string& message) const;
  void handleWith(std::function<void(const std::string&)> handler) { handler_ = std::move(handler); }

 private:
  std::function<void(const std::string&)> handler_;
};

}  // namespace platform::fake
