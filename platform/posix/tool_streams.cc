#include "platform/posix/tool_streams.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/posix/sigpipe_blocked.h"
#include "platform/posix/system_error.h"

namespace platform::posix {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFirstPlainDescriptor = 3;

FileDescriptor movedUp(FileDescriptor descriptor) {
  if (!descriptor || descriptor.get() >= kFirstPlainDescriptor) return descriptor;
  return FileDescriptor(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, kFirstPlainDescriptor));
}

bool openPipe(FileDescriptor& readEnd, FileDescriptor& writeEnd) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  FileDescriptor first(ends[0]);
  FileDescriptor second(ends[1]);
  readEnd = movedUp(std::move(first));
  writeEnd = movedUp(std::move(second));
  return readEnd && writeEnd;
}

void doNotBlock(const FileDescriptor& descriptor) {
  if (descriptor) ::fcntl(descriptor.get(), F_SETFL, ::fcntl(descriptor.get(), F_GETFL) | O_NONBLOCK);
}

bool mayRetry() { return errno == EAGAIN || errno == EINTR; }

// Milliseconds, as poll() takes them; -1 is for ever.
int pollTimeout(std::optional<Clock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(0, left.count()));
}

}  // namespace

base::Result<ToolStreams> ToolStreams::open(const std::vector<base::Secret>* input,
                                            ports::ToolRun::Capture capture) {
  ToolStreams streams;
  streams.input_ = input;
  const bool inputMade = !input || openPipe(streams.toolInput_, streams.ourInput_);
  const bool outputMade =
      capture == ports::ToolRun::Capture::none || openPipe(streams.ourOutput_, streams.toolOutput_);
  if (!inputMade || !outputMade) return base::Error{errnoText()};
  doNotBlock(streams.ourInput_);
  doNotBlock(streams.ourOutput_);
  return streams;
}

void ToolStreams::closeToolEnds() {
  toolInput_.reset();
  toolOutput_.reset();
}

void ToolStreams::exchange(pid_t tool, std::chrono::milliseconds grace) {
  // Where no descriptor is left for this, the end of the output has to do as the sign of the tool's end.
  FileDescriptor ended(static_cast<int>(::syscall(SYS_pidfd_open, tool, 0)));
  std::optional<Clock::time_point> deadline;
  while (ourInput_ || ourOutput_) {
    std::array<pollfd, 3> polled = {
        {{ourInput_.get(), POLLOUT, 0}, {ourOutput_.get(), POLLIN, 0}, {ended.get(), POLLIN, 0}}};
    const int ready = ::poll(polled.data(), polled.size(), pollTimeout(deadline));
    if (polled[0].revents != 0 && !feed()) ourInput_.reset();
    if (polled[1].revents != 0 && !drain()) ourOutput_.reset();
    if (polled[2].revents != 0) {
      deadline = Clock::now() + grace;
      ended.reset();
      ourInput_.reset();
    }
    if (ready >= 0 && deadline && Clock::now() >= *deadline) return;
  }
}

// False when all is fed, or nobody reads.
bool ToolStreams::feed() {
  const SigpipeBlocked blocked;
  while (fedSecrets_ < input_->size()) {
    const auto left = (*input_)[fedSecrets_].reveal().substr(fedBytes_);
    if (left.empty()) {
      ++fedSecrets_;
      fedBytes_ = 0;
      continue;
    }
    const auto put = ::write(ourInput_.get(), left.data(), left.size());
    if (put < 0) return mayRetry();
    fedBytes_ += static_cast<std::size_t>(put);
  }
  return false;
}

// False at the end.
bool ToolStreams::drain() {
  std::array<char, 64 * 1024> buffer;
  const auto got = ::read(ourOutput_.get(), buffer.data(), buffer.size());
  if (got < 0) return mayRetry();
  output_.append(buffer.data(), static_cast<std::size_t>(got));
  return got > 0;
}

}  // namespace platform::posix
