#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <systemd/sd-bus.h>

#include "base/property_list.h"
#include "base/result.h"

namespace platform::freedesktop {

// Every call has been answered, or given up: nothing is left to be flushed, which a mute bus would hold up.
struct CloseBus {
  void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
};
struct UnreferenceMessage {
  void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, UnreferenceMessage>;

// A connection to a message bus for programs that ask and wait. Whatever is mute is given up after a while.
// Used by one thread.
class MessageBus {
 public:
  // At which to call something.
  struct Place {
    std::string service;
    std::string object;
    std::string interface;
  };
  using Milliseconds = std::chrono::milliseconds;

  static base::Result<MessageBus> connectToSystem(Milliseconds patience);
  static base::Result<MessageBus> connectToSession(Milliseconds patience);

  // A call, to be filled with arguments and sent. Starts the service where it can be started and `starts`
  // says so. Where the service asks for a password, the desktop's own dialogue may ask the person for it.
  class Call {
   public:
    // The types as in "sa{sv}"; the values as sd_bus_message_append() takes them.
    template <class... Values>
    Call& with(const char* types, Values... values) {
      if (code_ >= 0) code_ = ::sd_bus_message_append(message_.get(), types, values...);
      return *this;
    }
    Call& withoutStarting() {
      if (code_ >= 0) code_ = ::sd_bus_message_set_auto_start(message_.get(), 0);
      return *this;
    }
    // The error says what was being done ("cannot unmount /dev/sdb"), and why it failed.
    base::Result<BusMessage> send(const std::string& doing, Milliseconds patience);

   private:
    friend class MessageBus;
    explicit Call(sd_bus* bus) : bus_(bus) {}

    sd_bus* bus_;
    int code_ = 0;
    BusMessage message_;
  };
  Call call(const Place& place, const char* method);
  base::Result<base::PropertyList> property(const Place& place, const char* name, Milliseconds patience);

  // Calls the handler, from process(), for each signal that matches the rule, as the bus understands rules.
  base::Result<void> subscribe(const std::string& rule, std::function<void()> handler);
  // Readable when there is something to process.
  int descriptor() const { return ::sd_bus_get_fd(bus_.get()); }
  // Handles what has come. False once the bus has hung up.
  bool process();

 private:
  explicit MessageBus(sd_bus* bus) : bus_(bus) {}
  static base::Result<MessageBus> connect(int (*open)(sd_bus**), const char* name, Milliseconds patience);

  struct Unsubscribe {
    void operator()(sd_bus_slot* slot) const { ::sd_bus_slot_unref(slot); }
  };
  struct Subscription {
    std::function<void()> handler;
    std::unique_ptr<sd_bus_slot, Unsubscribe> slot;
  };

  std::unique_ptr<sd_bus, CloseBus> bus_;
  std::list<Subscription> subscriptions_;
};

// The message's next argument. Texts, object paths and zero-terminated bytes are texts; what properties maps
// of texts have is a dictionary. Nothing for what has no such form, or is not there.
std::optional<base::PropertyList> nextValue(const BusMessage& message);

}  // namespace platform::freedesktop
