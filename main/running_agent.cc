#include "main/running_agent.h"

#include "base/property_list.h"

using base::PropertyList;
using platform::freedesktop::MessageBus;

namespace {

constexpr std::chrono::milliseconds kPatience{5000};
constexpr const char* kName = "com.stashwick.Agent";
const MessageBus::Place kAgent{kName, "/com/stashwick/Agent", kName};

std::string textIn(const PropertyList::Dictionary& entries, std::string_view key) {
  const auto* text = base::find<std::string>(entries, key);
  return text ? *text : "";
}

// As the device's own description had it; what the agent does not list is no external USB volume.
RunningAgent::Volume volumeOf(const PropertyList::Dictionary& told) {
  RunningAgent::Volume volume{
      .description = {{std::string(ports::kDADiskDescriptionVolumeNameKey), textIn(told, "Name")},
                      {std::string(ports::kDADiskDescriptionMediaSizeKey),
                       base::findNumber(told, "Bytes").value_or(0)},
                      {std::string(ports::kDADiskDescriptionDeviceInternalKey), false},
                      {std::string(ports::kDADiskDescriptionDeviceProtocolKey), "USB"}},
      .folder = textIn(told, "Place")};
  if (const auto identifier = textIn(told, "Identifier"); !identifier.empty())
    volume.description.emplace(ports::kDADiskDescriptionMediaUUIDKey, identifier);
  return volume;
}

}  // namespace

bool RunningAgent::connect() {
  if (bus_) return true;
  auto bus = MessageBus::connectToSession(kPatience);
  if (bus) bus_ = *std::move(bus);
  return bus_.has_value();
}

std::optional<std::vector<RunningAgent::Volume>> RunningAgent::volumes() {
  if (!connect()) return std::nullopt;
  const auto reply =
      bus_->call(kAgent, "Volumes").withoutStarting().send("cannot ask the agent for its volumes", kPatience);
  if (!reply) return std::nullopt;
  const auto told = nextValue(*reply);
  const auto* list = told ? told->as<PropertyList::Array>() : nullptr;
  if (!list) return std::nullopt;
  std::vector<Volume> volumes;
  for (const auto& element : *list)
    if (const auto* entries = element.as<PropertyList::Dictionary>()) volumes.push_back(volumeOf(*entries));
  return volumes;
}

base::Result<std::string> RunningAgent::currentVolume() {
  const auto current = bus_->property(kAgent, "CurrentVolume", kPatience);
  if (!current) return current.error();
  const auto* name = current->as<std::string>();
  return name ? *name : std::string();
}

base::Result<void> RunningAgent::begin(const std::string& volume) {
  if (auto followed = follow(); !followed) return followed;
  const std::string doing = "the agent does not back up \"" + volume + "\"";
  const auto reply =
      bus_->call(kAgent, "BackUp").with("s", volume.c_str()).withoutStarting().send(doing, kPatience);
  if (!reply) return reply.error();
  const auto told = nextValue(*reply);
  const auto* reason = told ? told->as<std::string>() : nullptr;
  if (!reason) return base::Error{doing + ": its answer is not understood"};
  if (!reason->empty()) return base::Error{doing + ": " + *reason};
  return {};
}

// Changes of what it does, and its end.
base::Result<void> RunningAgent::follow() {
  const auto changed = [this] { mayHaveChanged_ = true; };
  const std::string name = kName;
  auto followed = bus_->subscribe("type='signal',interface='" + name + "',member='StateChanged'", changed);
  if (followed)
    followed = bus_->subscribe(
        "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + name + "'", changed);
  if (!followed) return followed;
  mayHaveChanged_ = true;
  watch_ = loop_.watch(bus_->descriptor(), [this] {
    if (bus_->process()) return;
    watch_.reset();
    mayHaveChanged_ = true;
  });
  return {};
}

bool RunningAgent::isOver() {
  while (std::exchange(mayHaveChanged_, false)) {
    if (!isBusy()) return true;
    // What came while the answer was waited for is not told by the descriptor any more.
    bus_->process();
  }
  return false;
}

bool RunningAgent::isBusy() {
  const auto busy = bus_->property(kAgent, "Busy", kPatience);
  hasAnswered_ = static_cast<bool>(busy);
  const auto* flag = busy ? busy->as<bool>() : nullptr;
  return flag && *flag;
}

std::string RunningAgent::lastFailure() {
  const auto last = bus_->property(kAgent, "LastFailure", kPatience);
  const auto* text = last ? last->as<std::string>() : nullptr;
  if (!last || !hasAnswered_) return "the agent has ended, or does not answer";
  return text ? *text : "";
}
