#pragma once

#include <optional>
#include <string>

#include "platform/posix/file_descriptor.h"

namespace platform::freedesktop {

// Finds out whether a message bus serves anybody before QtDBus is let near it: that one waits without end for
// a bus that takes connections and then is mute. Nothing here waits.
class BusGreeting {
 public:
  enum class Answer { none, served, refused };

  // Nothing when nobody listens at the address ("unix:path=/run/dbus/system_bus_socket"; the first of a list
  // that is a Unix socket's).
  static std::optional<BusGreeting> begin(const std::string& address);

  // Readable once there is an answer.
  int descriptor() const { return socket_.get(); }
  // None while the bus is mute; refused when it has hung up.
  Answer answer() const;

 private:
  explicit BusGreeting(posix::FileDescriptor socket) : socket_(std::move(socket)) {}

  posix::FileDescriptor socket_;
};

// Where the system bus is, by the environment or by custom.
std::string systemBusAddress();
// Likewise the user's session bus; empty when nothing says where.
std::string sessionBusAddress();

}  // namespace platform::freedesktop
