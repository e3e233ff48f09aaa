#include "platform/linux/bus_greeting.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "tests/platform/posix/temporary_folder.h"

namespace platform::freedesktop {
namespace {

// A socket that takes connections, and whoever serves it.
class Listener {
 public:
  explicit Listener(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* generic = static_cast<const sockaddr*>(static_cast<const void*>(&address));
    EXPECT_EQ(::bind(socket_.get(), generic, sizeof address), 0);
    EXPECT_EQ(::listen(socket_.get(), 1), 0);
  }
  posix::FileDescriptor accept() { return posix::FileDescriptor(::accept(socket_.get(), nullptr, nullptr)); }

 private:
  posix::FileDescriptor socket_;
};

void awaitReadable(const BusGreeting& greeting) {
  pollfd polled{greeting.descriptor(), POLLIN, 0};
  EXPECT_EQ(::poll(&polled, 1, 20000), 1);
}

TEST(BusGreeting, needsSomebodyWhoListens) {
  const TemporaryFolder folder;
  EXPECT_FALSE(BusGreeting::begin("unix:path=" + folder / "none"));
  EXPECT_FALSE(BusGreeting::begin("unix:path="));
  EXPECT_FALSE(BusGreeting::begin("unix:path=/" + std::string(200, 'x')));
  EXPECT_FALSE(BusGreeting::begin("tcp:host=localhost,port=1"));
  EXPECT_FALSE(BusGreeting::begin(""));
}

TEST(BusGreeting, tellsABusThatServesFromOneThatIsMute) {
  const TemporaryFolder folder;
  Listener bus(folder / "a bus");
  const auto greeting = BusGreeting::begin("tcp:port=1;unix:guid=1,path=" + folder / "a%20bus");
  ASSERT_TRUE(greeting);
  EXPECT_EQ(greeting->answer(), BusGreeting::Answer::none);
  const auto server = bus.accept();
  char question[7] = {};
  EXPECT_EQ(::recv(server.get(), question, sizeof question, MSG_WAITALL), 7);
  EXPECT_EQ(std::string(question, 7), std::string("\0AUTH\r\n", 7));
  EXPECT_EQ(greeting->answer(), BusGreeting::Answer::none);
  EXPECT_EQ(::send(server.get(), "REJECTED EXTERNAL\r\n", 19, 0), 19);
  awaitReadable(*greeting);
  EXPECT_EQ(greeting->answer(), BusGreeting::Answer::served);
}

TEST(BusGreeting, noticesThatABusHangsUp) {
  const TemporaryFolder folder;
  Listener bus(folder / "bus");
  const auto greeting = BusGreeting::begin("unix:path=" + folder / "bus");
  ASSERT_TRUE(greeting);
  bus.accept().reset();
  awaitReadable(*greeting);
  EXPECT_EQ(greeting->answer(), BusGreeting::Answer::refused);
}

}  // namespace
}  // namespace platform::freedesktop
