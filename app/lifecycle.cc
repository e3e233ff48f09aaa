// Start-up, the list of attached volumes, and the detection of the main application.

#include <algorithm>
#include <any>

#include "app/agent_app_delegate.h"

void ZQAgentAppDelegate::initialize(const ports::Host& host) {
  const auto path = host.bundle.pathForResource("Defaults", "plist");
  host.defaults.registerDefaults(path ? host.archives.dictionaryWithContentsOfFile(*path) : std::nullopt);
}

std::shared_ptr<ZQAgentAppDelegate> ZQAgentAppDelegate::init(const ports::Host& host) {
  return std::shared_ptr<ZQAgentAppDelegate>(new ZQAgentAppDelegate(host));
}

ZQAgentAppDelegate::~ZQAgentAppDelegate() {
  host_.desktop.setMenuResponder(nullptr);
  deviceCenter_ = nullptr;
  stashwick_ = nullptr;
  statusItem_ = nullptr;
  devices_.clear();
  // The observers of mounts and unmounts stay behind; they hold this object weakly.
}

void ZQAgentAppDelegate::applicationDidFinishLaunching() {
  launchMoment_ = host_.dates.now();
  observe(ZQRemovableDeviceCenterDeviceMountedNotification, &ZQAgentAppDelegate::deviceMounted);
  observe(ZQRemovableDeviceCenterDeviceUnmountedNotification, &ZQAgentAppDelegate::deviceUnmounted);
  // After the observers: what the centre posts while it starts already reaches them.
  deviceCenter_ = std::make_unique<ZQRemovableDeviceCenter>(host_);
  stashwick_ = std::make_unique<ZQStashwick>(host_);
  stashwick_->setDelegate(shared_from_this());
  _createStatusBarMenu();
}

void ZQAgentAppDelegate::applicationWillTerminate() { stashwick_ = nullptr; }

void ZQAgentAppDelegate::observe(
    std::string_view notification,
    void (ZQAgentAppDelegate::*handler)(const std::shared_ptr<ZQRemovableDevice>&)) {
  host_.notifications.addObserver(
      notification, [&queue = host_.mainQueue](const auto& deliver) { queue.performAndWait(deliver); },
      [weakSelf = weak_from_this(), handler](const base::Notification& posted) {
        const auto self = weakSelf.lock();
        const auto* device = std::any_cast<std::shared_ptr<ZQRemovableDevice>>(&posted.object);
        if (self && device) ((*self).*handler)(*device);
      });
}

void ZQAgentAppDelegate::deviceMounted(const std::shared_ptr<ZQRemovableDevice>& device) {
  if (device->type() != ZQRemovableDeviceTypeExternal) return;
  if (device->protocol() != ZQRemovableDeviceProtocolUSB) return;
  devices_.push_back(device);
  _reloadStatusMenu();
  if (device->connectionDate() > launchMoment_) _promptBackupWithDevice(device, false);
}

void ZQAgentAppDelegate::deviceUnmounted(const std::shared_ptr<ZQRemovableDevice>& device) {
  std::erase_if(devices_, [&](const auto& listed) { return listed->isEqual(*device); });
  _reloadStatusMenu();
}

bool ZQAgentAppDelegate::canRunInBackground() const {
  const auto names = host_.user.runningBundleNames();
  return std::ranges::find(names, std::optional<std::string>("Stashwick")) == names.end();
}
