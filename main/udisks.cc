#include "main/udisks.h"

#include <cerrno>
#include <fcntl.h>
#include <utility>

#include "image/os/posix_error.h"

namespace {

using image::os::posixError;
using platform::freedesktop::BusMessage;
using platform::freedesktop::MessageBus;

constexpr const char* kService = "org.freedesktop.UDisks2";
constexpr std::chrono::seconds kBusPatience{30};
// Formatting a slow stick takes its time, and so does a person with a password.
constexpr std::chrono::minutes kPatience{10};

MessageBus::Place place(const std::string& object, const char* interface) {
  return {kService, object, std::string(kService) + "." + interface};
}

base::Result<std::string> firstObject(const BusMessage& reply, const std::string& device) {
  const auto value = platform::freedesktop::nextValue(reply);
  const auto* objects = value ? value->as<base::PropertyList::Array>() : nullptr;
  const auto* object = objects && !objects->empty() ? (*objects)[0].as<std::string>()
                       : value                      ? value->as<std::string>()
                                                    : nullptr;
  if (!object) return base::Error{"the disk service does not know " + device};
  return *object;
}

}  // namespace

base::Result<UDisks> UDisks::connect() {
  auto bus = MessageBus::connectToSystem(kBusPatience);
  if (!bus) return bus.error();
  return UDisks(*std::move(bus));
}

base::Result<std::string> UDisks::objectOf(const std::string& device) {
  auto reply = bus_.call(place("/org/freedesktop/UDisks2/Manager", "Manager"), "ResolveDevice")
                   .with("a{sv}a{sv}", 1, "path", "s", device.c_str(), 0)
                   .send("cannot ask the disk service for " + device, kPatience);
  if (!reply) return reply.error();
  return firstObject(*reply, device);
}

base::Result<void> UDisks::unmount(const std::string& device) {
  const auto object = objectOf(device);
  if (!object) return object.error();
  auto reply = bus_.call(place(*object, "Filesystem"), "Unmount")
                   .with("a{sv}", 0)
                   .send("cannot unmount " + device, kPatience);
  if (!reply) return reply.error();
  return {};
}

base::Result<image::os::FileDescriptor> UDisks::open(const std::string& device) {
  const auto object = objectOf(device);
  if (!object) return object.error();
  auto reply = bus_.call(place(*object, "Block"), "OpenDevice")
                   .with("sa{sv}", "rw", 1, "flags", "i", O_EXCL | O_CLOEXEC)
                   .send("cannot have to itself " + device, kPatience);
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
  auto reply = bus_.call(place(*object, "Block"), "Rescan")
                   .with("a{sv}", 0)
                   .send("cannot show the system the new partition of " + device, kPatience);
  if (!reply) return reply.error();
  return {};
}

base::Result<std::string> UDisks::formatFAT(const std::string& device, const std::string& label) {
  const auto object = objectOf(device);
  if (!object) return object.error();
  auto table = bus_.call(place(*object, "Block"), "Format")
                   .with("sa{sv}", "dos", 0)
                   .send("cannot partition " + device, kPatience);
  if (!table) return table.error();
  auto made = bus_.call(place(*object, "PartitionTable"), "CreatePartition")
                  .with("ttssa{sv}", std::uint64_t{1} << 20, std::uint64_t{0}, "0x0c", "", 0)
                  .send("cannot make a partition on " + device, kPatience);
  if (!made) return made.error();
  const auto partition = firstObject(*made, device);
  if (!partition) return partition.error();
  const auto format = [&] {
    return bus_.call(place(*partition, "Block"), "Format")
        .with("sa{sv}", "vfat", 1, "label", "s", label.c_str())
        .send("cannot make a volume on " + device, kPatience);
  };
  // On a busy machine the service may give up waiting for the news of its own wiping, once.
  auto formatted = format();
  if (!formatted) formatted = format();
  if (!formatted) return formatted.error();
  const auto version = bus_.property(place(*partition, "Block"), "IdVersion", kPatience);
  if (!version) return version.error();
  const auto* text = version->as<std::string>();
  return text ? *text : std::string();
}
