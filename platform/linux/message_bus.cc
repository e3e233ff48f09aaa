#include "platform/linux/message_bus.h"

#include <cerrno>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

#include "platform/posix/system_error.h"

namespace platform::freedesktop {
namespace {

using base::PropertyList;
using Clock = std::chrono::steady_clock;

base::Error errorOf(const std::string& doing, int code) { return {doing + ": " + posix::errnoText(-code)}; }

std::uint64_t microseconds(std::chrono::milliseconds patience) {
  return static_cast<std::uint64_t>(std::chrono::microseconds(patience).count());
}

// Reads values one after the other; what it cannot tell as a PropertyList it skips.
class ValueReader {
 public:
  explicit ValueReader(sd_bus_message* message) : message_(message) {}

  std::optional<PropertyList> read() {
    char type = 0;
    const char* contents = nullptr;
    if (::sd_bus_message_peek_type(message_, &type, &contents) <= 0) return std::nullopt;
    switch (type) {
      case SD_BUS_TYPE_VARIANT:
        return inside(type, contents, [this] { return read(); });
      case SD_BUS_TYPE_ARRAY:
        return readArray(contents);
      case SD_BUS_TYPE_STRUCT:
        return inside(type, contents, [this] { return readElements(); });
      default:
        return readBasic(type);
    }
  }

 private:
  std::optional<PropertyList> inside(char type, const char* contents, const auto& readContents) {
    const std::string kept = contents;
    if (::sd_bus_message_enter_container(message_, type, kept.c_str()) <= 0) return std::nullopt;
    std::optional<PropertyList> value = readContents();
    ::sd_bus_message_exit_container(message_);
    return value;
  }

  std::optional<PropertyList> readArray(const std::string& contents) {
    if (contents == "y") return readBytes();
    const bool isDictionary = contents.starts_with("{s") || contents.starts_with("{o");
    return inside(SD_BUS_TYPE_ARRAY, contents.c_str(),
                  [&] { return isDictionary ? readEntries(contents) : readElements(); });
  }

  std::optional<PropertyList> readBytes() {
    const void* bytes = nullptr;
    std::size_t size = 0;
    if (::sd_bus_message_read_array(message_, 'y', &bytes, &size) < 0) return std::nullopt;
    const std::string_view text(static_cast<const char*>(bytes), size);
    return PropertyList(text.substr(0, text.find('\0')));
  }

  std::optional<PropertyList> readElements() {
    PropertyList::Array elements;
    while (::sd_bus_message_at_end(message_, 0) == 0) {
      auto element = read();
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
    }
    return PropertyList(std::move(elements));
  }

  std::optional<PropertyList> readEntries(const std::string& contents) {
    const std::string entry = contents.substr(1, contents.size() - 2);
    PropertyList::Dictionary entries;
    while (::sd_bus_message_enter_container(message_, SD_BUS_TYPE_DICT_ENTRY, entry.c_str()) > 0) {
      const auto key = read();
      auto value = read();
      ::sd_bus_message_exit_container(message_);
      if (key && value) entries.insert_or_assign(*key->as<std::string>(), std::move(*value));
    }
    return PropertyList(std::move(entries));
  }

  template <class Value>
  std::optional<Value> basic(char type) {
    Value value{};
    if (::sd_bus_message_read_basic(message_, type, &value) <= 0) return std::nullopt;
    return value;
  }

  template <class Integer>
  std::optional<PropertyList> integer(char type) {
    const auto value = basic<Integer>(type);
    if (!value || !std::in_range<std::int64_t>(*value)) return std::nullopt;
    return PropertyList(static_cast<std::int64_t>(*value));
  }

  std::optional<PropertyList> readBasic(char type) {
    switch (type) {
      case SD_BUS_TYPE_STRING:
      case SD_BUS_TYPE_OBJECT_PATH:
      case SD_BUS_TYPE_SIGNATURE:
        if (const auto text = basic<const char*>(type)) return PropertyList(std::string_view(*text));
        return std::nullopt;
      case SD_BUS_TYPE_BOOLEAN:
        if (const auto flag = basic<int>(type)) return PropertyList(*flag != 0);
        return std::nullopt;
      case SD_BUS_TYPE_DOUBLE:
        if (const auto number = basic<double>(type)) return PropertyList(*number);
        return std::nullopt;
      case SD_BUS_TYPE_BYTE:
        return integer<std::uint8_t>(type);
      case SD_BUS_TYPE_INT16:
        return integer<std::int16_t>(type);
      case SD_BUS_TYPE_UINT16:
        return integer<std::uint16_t>(type);
      case SD_BUS_TYPE_INT32:
        return integer<std::int32_t>(type);
      case SD_BUS_TYPE_UINT32:
        return integer<std::uint32_t>(type);
      case SD_BUS_TYPE_INT64:
        return integer<std::int64_t>(type);
      case SD_BUS_TYPE_UINT64:
        return integer<std::uint64_t>(type);
      default:
        ::sd_bus_message_skip(message_, nullptr);
        return std::nullopt;
    }
  }

  sd_bus_message* message_;
};

}  // namespace

base::Result<MessageBus> MessageBus::connect(int (*open)(sd_bus**), const char* name, Milliseconds patience) {
  const std::string doing = std::string("cannot reach the ") + name + " bus";
  const auto deadline = Clock::now() + patience;
  sd_bus* opened = nullptr;
  if (const int code = open(&opened); code < 0) return errorOf(doing, code);
  MessageBus bus(opened);
  ::sd_bus_set_method_call_timeout(opened, microseconds(patience));
  for (int code = 0; (code = ::sd_bus_is_ready(opened)) <= 0;) {
    const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now());
    if (code == 0 && left.count() <= 0) code = -ETIMEDOUT;
    if (code == 0) code = ::sd_bus_process(opened, nullptr);
    if (code == 0) code = ::sd_bus_wait(opened, microseconds(left));
    if (code < 0 && code != -EINTR) return errorOf(doing, code);
  }
  return bus;
}

base::Result<MessageBus> MessageBus::connectToSystem(Milliseconds patience) {
  return connect(::sd_bus_open_system, "system", patience);
}

base::Result<MessageBus> MessageBus::connectToSession(Milliseconds patience) {
  return connect(::sd_bus_open_user, "session", patience);
}

MessageBus::Call MessageBus::call(const Place& place, const char* method) {
  Call call(bus_.get());
  sd_bus_message* message = nullptr;
  call.code_ = ::sd_bus_message_new_method_call(bus_.get(), &message, place.service.c_str(),
                                                place.object.c_str(), place.interface.c_str(), method);
  call.message_.reset(message);
  if (call.code_ >= 0) call.code_ = ::sd_bus_message_set_allow_interactive_authorization(message, 1);
  return call;
}

base::Result<BusMessage> MessageBus::Call::send(const std::string& doing, Milliseconds patience) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  if (code_ >= 0) code_ = ::sd_bus_call(bus_, message_.get(), microseconds(patience), &error, &reply);
  const std::string reason = error.message != nullptr ? error.message : "";
  ::sd_bus_error_free(&error);
  if (code_ < 0) return reason.empty() ? errorOf(doing, code_) : base::Error{doing + ": " + reason};
  return BusMessage(reply);
}

base::Result<base::PropertyList> MessageBus::property(const Place& place, const char* name,
                                                      Milliseconds patience) {
  const std::string doing = std::string("cannot ask ") + place.service + " for " + name;
  auto reply = call({place.service, place.object, "org.freedesktop.DBus.Properties"}, "Get")
                   .with("ss", place.interface.c_str(), name)
                   .withoutStarting()
                   .send(doing, patience);
  if (!reply) return reply.error();
  auto value = nextValue(*reply);
  if (!value) return base::Error{doing + ": the answer is not understood"};
  return *std::move(value);
}

base::Result<void> MessageBus::subscribe(const std::string& rule, std::function<void()> handler) {
  auto& subscription = subscriptions_.emplace_back(Subscription{std::move(handler), nullptr});
  const auto callHandler = [](sd_bus_message*, void* data, sd_bus_error*) {
    (*static_cast<std::function<void()>*>(data))();
    return 0;
  };
  sd_bus_slot* slot = nullptr;
  const int code = ::sd_bus_add_match(bus_.get(), &slot, rule.c_str(), callHandler, &subscription.handler);
  subscription.slot.reset(slot);
  return code < 0 ? base::Result<void>(errorOf("cannot follow " + rule, code)) : base::Result<void>();
}

bool MessageBus::process() {
  int code = 0;
  while ((code = ::sd_bus_process(bus_.get(), nullptr)) > 0) {
  }
  return code == 0;
}

std::optional<base::PropertyList> nextValue(const BusMessage& message) {
  return ValueReader(message.get()).read();
}

}  // namespace platform::freedesktop
