#include "main/udisks.h"

#include <cerrno>
#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <utility>

#include "image/os/posix_error.h"

namespace {

using image::os::posixError;

constexpr const char* kService = "org.freedesktop.UDisks2";
constexpr const char* kManager = "/org/freedesktop/UDisks2/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.UDisks2.Manager";
constexpr const char* kBlock = "org.freedesktop.UDisks2.Block";
constexpr const char* kFilesystem = "org.freedesktop.UDisks2.Filesystem";
constexpr const char* kPartitionTable = "org.freedesktop.UDisks2.PartitionTable";
// Formatting a slow stick takes its time, and so does a person with a password.
constexpr std::uint64_t kMicroseconds = 600'000'000;

struct Unreference {
  void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, Unreference>;

// One call: made, filled by the caller of this class, sent.
class Call {
 public:
  Call(sd_bus* bus, const std::string& object, const char* interface, const char* method) : bus_(bus) {
    sd_bus_message* message = nullptr;
    code_ = ::sd_bus_message_new_method_call(bus, &message, kService, object.c_str(), interface, method);
    message_.reset(message);
    if (code_ >= 0) code_ = ::sd_bus_message_set_allow_interactive_authorization(message, 1);
  }

  template <class... Values>
  Call& with(const char* types, Values... values) {
    if (code_ >= 0) code_ = ::sd_bus_message_append(message_.get(), types, values...);
    return *this;
  }

  base::Result<Message> send(const std::string& doing, const std::string& what) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (code_ >= 0) code_ = ::sd_bus_call(bus_, message_.get(), kMicroseconds, &error, &reply);
    const std::string reason = error.message != nullptr ? error.message : "";
    ::sd_bus_error_free(&error);
    if (code_ < 0 && reason.empty()) return posixError(doing, what, -code_);
    if (code_ < 0) return base::Error{doing + " " + what + ": " + reason};
    return Message(reply);
  }

 private:
  sd_bus* bus_;
  int code_ = 0;
  Message message_;
};

base::Result<std::string> firstObject(const Message& reply, const char* array, const std::string& device) {
  const char* object = nullptr;
  int code = array == nullptr ? 1 : ::sd_bus_message_enter_container(reply.get(), 'a', array);
  if (code > 0) code = ::sd_bus_message_read_basic(reply.get(), 'o', &object);
  if (code <= 0) return base::Error{"the disk service does not know " + device};
  return std::string(object);
}

}  // namespace

void UDisks::Close::operator()(sd_bus* bus) const { ::sd_bus_flush_close_unref(bus); }

base::Result<UDisks> UDisks::connect() {
  sd_bus* bus = nullptr;
  if (const int code = ::sd_bus_open_system(&bus); code < 0)
    return posixError("cannot reach", "the disk service on the system bus", -code);
  return UDisks(std::unique_ptr<sd_bus, Close>(bus));
}

base::Result<std::string> UDisks::objectOf(const std::string& device) {
  auto reply = Call(bus_.get(), kManager, kManagerInterface, "ResolveDevice")
                   .with("a{sv}a{sv}", 1, "path", "s", device.c_str(), 0)
                   .send("cannot ask the disk service for", device);
  if (!reply) return reply.error();
  return firstObject(*reply, "o", device);
}

base::Result<void> UDisks::unmount(const std::string& device) {
  const auto object = objectOf(device);
  if (!object) return object.error();
  auto reply =
      Call(bus_.get(), *object, kFilesystem, "Unmount").with("a{sv}", 0).send("cannot unmount", device);
  if (!reply) return reply.error();
  return {};
}

base::Result<image::os::FileDescriptor> UDisks::open(const std::string& device) {
  const auto object = objectOf(device);
  if (!object) return object.error();
  auto reply = Call(bus_.get(), *object, kBlock, "OpenDevice")
                   .with("sa{sv}", "rw", 1, "flags", "i", O_EXCL | O_CLOEXEC)
                   .send("cannot have to itself", device);
  if (!reply) return reply.error();
  int number = -1;
  if (const int code = ::sd_bus_message_read_basic(reply->get(), 'h', &number); code < 0)
    return posixError("cannot read the disk service's answer about", device, -code);
  // The message keeps its own.
  image::os::FileDescriptor file(::fcntl(number, F_DUPFD_CLOEXEC, 3));
  if (!file) return posixError("cannot open", device, errno);
  return file;
}

base::Result<void> UDisks::rescan(const std::string& device) {
  const auto object = objectOf(device);
  if (!object) return object.error();
  auto reply = Call(bus_.get(), *object, kBlock, "Rescan")
                   .with("a{sv}", 0)
                   .send("cannot show the system the new partition of", device);
  if (!reply) return reply.error();
  return {};
}

base::Result<std::string> UDisks::formatFAT(const std::string& device, const std::string& label) {
  const auto object = objectOf(device);
  if (!object) return object.error();
  auto table =
      Call(bus_.get(), *object, kBlock, "Format").with("sa{sv}", "dos", 0).send("cannot partition", device);
  if (!table) return table.error();
  auto made = Call(bus_.get(), *object, kPartitionTable, "CreatePartition")
                  .with("ttssa{sv}", std::uint64_t{1} << 20, std::uint64_t{0}, "0x0c", "", 0)
                  .send("cannot make a partition on", device);
  if (!made) return made.error();
  const auto partition = firstObject(*made, nullptr, device);
  if (!partition) return partition.error();
  const auto format = [&] {
    return Call(bus_.get(), *partition, kBlock, "Format")
        .with("sa{sv}", "vfat", 1, "label", "s", label.c_str())
        .send("cannot make a volume on", device);
  };
  // On a busy machine the service may give up waiting for the news of its own wiping, once.
  auto formatted = format();
  if (!formatted) formatted = format();
  if (!formatted) return formatted.error();
  char* version = nullptr;
  const int code = ::sd_bus_get_property_string(bus_.get(), kService, partition->c_str(), kBlock, "IdVersion",
                                                nullptr, &version);
  if (code < 0) return posixError("cannot ask the disk service about", *partition, -code);
  const std::unique_ptr<char, decltype(&::free)> owned(version, &::free);
  return std::string(version);
}
