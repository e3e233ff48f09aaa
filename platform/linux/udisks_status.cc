#include "platform/linux/udisks_status.h"

#include <array>
#include <string_view>
#include <utility>

namespace platform::freedesktop {
namespace {

constexpr std::array<std::pair<std::string_view, ports::DAReturn>, 24> kStatuses = {{
    {"org.freedesktop.UDisks2.Error.AlreadyMounted", ports::kDAReturnBusy},
    {"org.freedesktop.UDisks2.Error.AlreadyUnmounting", ports::kDAReturnBusy},
    {"org.freedesktop.UDisks2.Error.DeviceBusy", ports::kDAReturnBusy},
    {"org.freedesktop.UDisks2.Error.MountedByOtherUser", ports::kDAReturnNotPermitted},
    {"org.freedesktop.UDisks2.Error.NotAuthorized", ports::kDAReturnNotPrivileged},
    {"org.freedesktop.UDisks2.Error.NotAuthorizedCanObtain", ports::kDAReturnNotPrivileged},
    {"org.freedesktop.UDisks2.Error.NotAuthorizedDismissed", ports::kDAReturnNotPermitted},
    {"org.freedesktop.UDisks2.Error.NotMounted", ports::kDAReturnNotMounted},
    {"org.freedesktop.UDisks2.Error.NotSupported", ports::kDAReturnUnsupported},
    {"org.freedesktop.UDisks2.Error.OptionNotPermitted", ports::kDAReturnUnsupported},
    {"org.freedesktop.UDisks2.Error.Timedout", ports::kDAReturnNotReady},
    {"org.freedesktop.UDisks2.Error.WouldWakeup", ports::kDAReturnNotReady},
    {"org.freedesktop.DBus.Error.AccessDenied", ports::kDAReturnNotPrivileged},
    {"org.freedesktop.DBus.Error.Disconnected", ports::kDAReturnNotReady},
    {"org.freedesktop.DBus.Error.InvalidArgs", ports::kDAReturnBadArgument},
    {"org.freedesktop.DBus.Error.NoMemory", ports::kDAReturnNoResources},
    {"org.freedesktop.DBus.Error.NoReply", ports::kDAReturnNotReady},
    {"org.freedesktop.DBus.Error.ServiceUnknown", ports::kDAReturnNotReady},
    {"org.freedesktop.DBus.Error.TimedOut", ports::kDAReturnNotReady},
    {"org.freedesktop.DBus.Error.Timeout", ports::kDAReturnNotReady},
    {"org.freedesktop.DBus.Error.NotSupported", ports::kDAReturnUnsupported},
    {"org.freedesktop.DBus.Error.UnknownInterface", ports::kDAReturnNotFound},
    {"org.freedesktop.DBus.Error.UnknownMethod", ports::kDAReturnNotFound},
    {"org.freedesktop.DBus.Error.UnknownObject", ports::kDAReturnNotFound},
}};

}  // namespace

ports::Dissenter dissenterFromBusError(const std::string& errorName, const std::string& message) {
  for (const auto& [name, status] : kStatuses) {
    if (name == errorName) return {status, message};
  }
  return {ports::kDAReturnError, message.empty() ? errorName : message};
}

}  // namespace platform::freedesktop
