#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/date.h"
#include "devices/removable_device.h"
#include "devices/removable_device_center.h"
#include "engine/stashwick.h"
#include "ports/host.h"

// The agent: the attached USB volumes, the status-bar menu, the question asked about a new volume, and the
// reporting of how a backup goes. Lives for the whole process, owned by a shared_ptr.
//
// Main thread only, but for the three calls of the engine (ZQStashwickDelegate): what they show is handed to
// the main thread, and they return when it is done.
class ZQAgentAppDelegate : public ZQStashwickDelegate,
                           public ports::MenuResponder,
                           public std::enable_shared_from_this<ZQAgentAppDelegate> {
 public:
  // Seeds the settings from the resource "Defaults" of type "plist". Once, before the first delegate is made.
  static void initialize(const ports::Host& host);

  // No devices yet, no centre, no engine.
  static std::shared_ptr<ZQAgentAppDelegate> init(const ports::Host& host);
  ~ZQAgentAppDelegate() override;

  void applicationDidFinishLaunching();

  // Destroys the engine, which waits for the step that runs. Called when the main loop has ended, before the
  // last reference goes: the engine's worker may hold one.
  void applicationWillTerminate();

  // Null before the launch has finished.
  ZQRemovableDeviceCenter* deviceCenter() const { return deviceCenter_.get(); }
  ZQStashwick* stashwick() const { return stashwick_.get(); }
  ports::StatusItem* statusItem() const { return statusItem_.get(); }

  // External USB volumes reported since the centre started, those present at start-up included, in order.
  const std::vector<std::shared_ptr<ZQRemovableDevice>>& devices() const { return devices_; }

  // Whether the main application is not running, so that a backup may start.
  bool canRunInBackground() const;

  // The menus, built anew from the state at this moment.
  void _createStatusBarMenu();
  std::shared_ptr<ports::Menu> _statusBarMenu() const;
  std::shared_ptr<ports::Menu> _deviceMenu() const;
  void _reloadStatusMenu();

  bool validateMenuItem(const ports::MenuItem& item) override;
  void performMenuAction(const std::string& selector, ports::MenuItem& sender) override;
  void _backupDeviceMenuAction(const ports::MenuItem& sender);
  // Kept on purpose: toggles what the item shows, and does not rebuild the menu.
  void _setAutomaticBackupsMenuAction(const ports::MenuItem& sender);
  void _openStashwick();

  // Decides by the volume's flag (unless it is to be ignored), or asks, records the answer, starts the
  // backup.
  void _promptBackupWithDevice(const std::shared_ptr<ZQRemovableDevice>& device, bool ignoresStatus);
  // Scans the volume and hands it to the engine; while the main application runs, tries again in 30 seconds.
  void _backupDevice(const std::shared_ptr<ZQRemovableDevice>& device);

  // The automatic-backup list: 1 back up on mount, -1 never ask, anything else ask. Keyed by UDID: the flag
  // of a device without one reads 0 and is not written.
  std::int32_t _backupStateForDevice(const ZQRemovableDevice& device) const;
  void _addDeviceToAutomaticBackups(const ZQRemovableDevice& device, std::int32_t backupFlag);
  // The path of the list's file. Its folder belongs to the main application and is not made here.
  std::string _manifestLocation() const;

  // The menu's switch. The decision for a volume does not ask it, on purpose.
  bool _createsAutomaticBackups() const;
  void _setAutomaticBackups(bool creates);

  void StashwickDidBegin(ZQStashwick& engine, ZQStashwickOperationType type) override;
  void StashwickDidFail(ZQStashwick& engine, const base::DomainError& withError,
                        ZQStashwickOperationType type) override;
  void StashwickDidFinish(ZQStashwick& engine, ZQStashwickOperationType type) override;

 private:
  explicit ZQAgentAppDelegate(const ports::Host& host) : host_(host) {}

  void observe(std::string_view notification,
               void (ZQAgentAppDelegate::*handler)(const std::shared_ptr<ZQRemovableDevice>&));
  void deviceMounted(const std::shared_ptr<ZQRemovableDevice>& device);
  void deviceUnmounted(const std::shared_ptr<ZQRemovableDevice>& device);

  ports::Alert alertForDevice(const ZQRemovableDevice& device, std::int32_t backupFlag) const;
  std::uint64_t estimatedBackupSize(const ZQRemovableDevice& device) const;
  std::string lastBackupText(const std::optional<base::Date>& date) const;
  std::string localizedString(std::string_view key) const { return host_.bundle.localizedString(key); }

  std::vector<std::shared_ptr<ZQRemovableDevice>> matchingDevices(const ZQStashwick& engine) const;
  void unclaimMatchingDevices(const ZQStashwick& engine);
  void endOperation(ZQStashwick& engine);
  void showFailure(const std::string& title, const char* messageFormat, const ZQStashwick& engine,
                   const base::DomainError& error);

  ports::Host host_;
  std::optional<base::Date> launchMoment_;
  std::unique_ptr<ZQRemovableDeviceCenter> deviceCenter_;
  std::vector<std::shared_ptr<ZQRemovableDevice>> devices_;
  std::unique_ptr<ports::StatusItem> statusItem_;
  std::unique_ptr<ZQStashwick> stashwick_;
};
