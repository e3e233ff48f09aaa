#include "platform/linux/udisks_listing.h"

#include <utility>

#include "platform/linux/message_bus.h"

namespace platform::freedesktop {
namespace {

using base::PropertyList;

UDisksInterfaces interfacesIn(PropertyList::Dictionary& told) {
  UDisksInterfaces interfaces;
  for (auto& [name, value] : told) {
    auto* properties = value.as<PropertyList::Dictionary>();
    if (properties && name.starts_with(kUDisksPrefix))
      interfaces.emplace(name.substr(kUDisksPrefix.size()), std::move(*properties));
  }
  return interfaces;
}

}  // namespace

base::Result<UDisksObjects> listUDisks(std::chrono::milliseconds patience) {
  auto bus = MessageBus::connectToSystem(patience);
  if (!bus) return bus.error();
  const auto reply =
      bus->call({"org.freedesktop.UDisks2", "/org/freedesktop/UDisks2", "org.freedesktop.DBus.ObjectManager"},
                "GetManagedObjects")
          .send("cannot ask the disk service", patience);
  if (!reply) return reply.error();
  auto told = nextValue(*reply);
  auto* byPath = told ? told->as<PropertyList::Dictionary>() : nullptr;
  if (!byPath) return base::Error{"cannot ask the disk service: its answer is not understood"};
  UDisksObjects::ByPath objects;
  for (auto& [path, value] : *byPath)
    if (auto* interfaces = value.as<PropertyList::Dictionary>())
      objects.emplace(path, interfacesIn(*interfaces));
  UDisksObjects listed;
  listed.replaceAll(std::move(objects));
  return listed;
}

}  // namespace platform::freedesktop
