#include "platform/linux/bus_greeting.h"

#include <QByteArray>
#include <QByteArrayList>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace platform::freedesktop {
namespace {

struct SocketAddress {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  socklen_t size = 0;
};

// A name that starts with a zero byte is an abstract one.
std::optional<SocketAddress> socketAddress(const QByteArray& name, bool abstract) {
  SocketAddress socket;
  const auto length = static_cast<std::size_t>(name.size());
  if (length == 0 || length + 1 >= sizeof socket.address.sun_path) return std::nullopt;
  std::memcpy(socket.address.sun_path + (abstract ? 1 : 0), name.data(), length);
  socket.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + 1);
  return socket;
}

std::optional<SocketAddress> firstUnixSocket(const std::string& addresses) {
  for (const auto& address : QByteArray::fromStdString(addresses).split(';')) {
    if (!address.startsWith("unix:")) continue;
    for (const auto& pair : address.mid(5).split(',')) {
      const bool abstract = pair.startsWith("abstract=");
      if (!abstract && !pair.startsWith("path=")) continue;
      return socketAddress(QByteArray::fromPercentEncoding(pair.mid(pair.indexOf('=') + 1)), abstract);
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<BusGreeting> BusGreeting::begin(const std::string& address) {
  const auto at = firstUnixSocket(address);
  if (!at) return std::nullopt;
  posix::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto* generic = static_cast<const sockaddr*>(static_cast<const void*>(&at->address));
  if (::connect(socket.get(), generic, at->size) != 0) return std::nullopt;
  // The zero byte that opens every connection, and the question which ways there are to authenticate.
  constexpr std::array<char, 7> kGreeting = {'\0', 'A', 'U', 'T', 'H', '\r', '\n'};
  if (::send(socket.get(), kGreeting.data(), kGreeting.size(), MSG_NOSIGNAL) < 0) return std::nullopt;
  return BusGreeting(std::move(socket));
}

BusGreeting::Answer BusGreeting::answer() const {
  char first = 0;
  const auto got = ::recv(socket_.get(), &first, 1, MSG_PEEK);
  if (got > 0) return Answer::served;
  const bool isMute = got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
  return isMute ? Answer::none : Answer::refused;
}

std::string systemBusAddress() {
  const auto given = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
  return given.isEmpty() ? "unix:path=/run/dbus/system_bus_socket" : given.toStdString();
}

std::string sessionBusAddress() {
  if (const auto given = qgetenv("DBUS_SESSION_BUS_ADDRESS"); !given.isEmpty()) return given.toStdString();
  const auto runtimeFolder = qgetenv("XDG_RUNTIME_DIR");
  return runtimeFolder.isEmpty() ? std::string() : "unix:path=" + runtimeFolder.toStdString() + "/bus";
}

}  // namespace platform::freedesktop
