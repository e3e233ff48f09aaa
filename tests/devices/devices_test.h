#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "devices/removable_device.h"
#include "platform/fake/world.h"

namespace tests::devices {

// The world's disks, with the names of the calls that act on them noted before they are handed on.
class RecordingDisks : public ports::DiskArbitration {
 public:
  RecordingDisks(ports::DiskArbitration& disks, std::vector<std::string>& events)
      : disks_(disks), events_(events) {}

  std::unique_ptr<ports::DiskSession> createSession(ports::DiskSessionCallbacks callbacks) override {
    return disks_.createSession(std::move(callbacks));
  }
  ports::DiskDescription copyDescription(const ports::DiskRef& disk) override {
    return disks_.copyDescription(disk);
  }
  void claim(const ports::DiskRef& disk) override {
    events_.push_back("claim");
    disks_.claim(disk);
  }
  void unclaim(const ports::DiskRef& disk) override {
    events_.push_back("unclaim");
    disks_.unclaim(disk);
  }
  void mount(const ports::DiskRef& disk, ports::DiskCompletion done) override {
    events_.push_back("mount");
    disks_.mount(disk, std::move(done));
  }
  void unmount(const ports::DiskRef& disk, ports::DiskCompletion done) override {
    events_.push_back("unmount");
    disks_.unmount(disk, std::move(done));
  }
  void eject(const ports::DiskRef& disk, ports::DiskCompletion done) override {
    events_.push_back("eject");
    disks_.eject(disk, std::move(done));
  }
  void rename(const ports::DiskRef& disk, const std::string& name) override {
    events_.push_back("rename");
    disks_.rename(disk, name);
  }
  ports::DiskRef diskFromVolumePath(const base::FileURL& volume) override {
    return disks_.diskFromVolumePath(volume);
  }

 private:
  ports::DiskArbitration& disks_;
  std::vector<std::string>& events_;
};

// A world whose disk calls and posted notifications are noted, in order, in events.
class DevicesTest : public ::testing::Test {
 protected:
  using Device = std::shared_ptr<ZQRemovableDevice>;
  using Entries = ports::DiskDescription;

  static Entries entry(std::string_view key, base::PropertyList value) {
    return {{std::string(key), std::move(value)}};
  }
  // The description of a stick, with this entry changed.
  Entries stickWith(std::string_view key, base::PropertyList value) {
    auto description = world.disks.usbPartition("STICK");
    description.insert_or_assign(std::string(key), std::move(value));
    return description;
  }
  Entries stickWithout(std::string_view key) {
    auto description = world.disks.usbPartition("STICK");
    description.erase(std::string(key));
    return description;
  }
  // Built from a description alone; its operations would act on no disk.
  Device describedAs(const Entries& description) {
    return ZQRemovableDevice::_initWithDiscDescription(host, description, nullptr);
  }
  Device deviceOf(const ports::DiskRef& disk) {
    return ZQRemovableDevice::_initWithDiscDescription(host, world.disks.copyDescription(disk), disk);
  }
  // Notes the posts of the notification, by its name, and keeps their objects.
  void notePosts(std::string_view name) {
    world.notifications.addObserver(
        name, [](const auto& deliver) { deliver(); },
        [this](const base::Notification& notification) {
          events.push_back(notification.name);
          objects.push_back(notification.object);
        });
  }
  Device lastObject() const { return std::any_cast<Device>(objects.back()); }

  platform::fake::World world;
  std::vector<std::string> events;
  std::vector<std::any> objects;
  RecordingDisks disks{world.disks, events};
  ports::Host host{disks,       world.keychain, world.desktop,      world.tools,  world.mainQueue,
                   world.files, world.archives, world.defaults,     world.bundle, world.dates,
                   world.user,  world.log,      world.notifications};
};

}  // namespace tests::devices
