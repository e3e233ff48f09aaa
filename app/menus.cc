// The status item, its menu, and the actions of its items.

#include <algorithm>

#include "app/agent_app_delegate.h"
#include "base/format.h"
#include "store/menu_item.h"

namespace {

constexpr const char* kBackupDeviceAction = "_backupDeviceMenuAction:";
constexpr const char* kSetAutomaticBackupsAction = "_setAutomaticBackupsMenuAction:";
constexpr const char* kOpenStashwickAction = "_openStashwick:";

std::shared_ptr<ports::MenuItem> separator() {
  auto item = std::make_shared<ports::MenuItem>();
  item->isSeparator = true;
  return item;
}

}  // namespace

void ZQAgentAppDelegate::_createStatusBarMenu() {
  host_.desktop.setMenuResponder(this);
  statusItem_ = host_.desktop.createStatusItem(ports::kSquareStatusItemLength);
  statusItem_->setImage("Icon_StatusBar");
  statusItem_->setHighlightMode(true);
  statusItem_->setMenu(_statusBarMenu());
}

void ZQAgentAppDelegate::_reloadStatusMenu() {
  if (statusItem_) statusItem_->setMenu(_statusBarMenu());
}

std::shared_ptr<ports::Menu> ZQAgentAppDelegate::_statusBarMenu() const {
  const auto status = std::make_shared<ports::MenuItem>(
      stashwick_->hasOperations()
          ? base::stringWithFormat(localizedString("Backing up \"%@\" ..."), {stashwick_->currentVolume()})
          : lastBackupText(stashwick_->lastBackupDate()));
  const auto backup = std::make_shared<ports::MenuItem>(localizedString("Backup ..."));
  backup->submenu = _deviceMenu();
  const auto automatic =
      std::make_shared<ports::MenuItem>(localizedString("Automatic Backups"), kSetAutomaticBackupsAction);
  automatic->state = _createsAutomaticBackups() ? 1 : 0;
  const auto quit =
      std::make_shared<ports::MenuItem>(localizedString("Quit Stashwick"), ports::kTerminateAction);
  quit->target = ports::MenuItem::Target::application;
  return std::make_shared<ports::Menu>(
      ports::Menu{{status, separator(), backup, automatic, separator(), quit}});
}

std::shared_ptr<ports::Menu> ZQAgentAppDelegate::_deviceMenu() const {
  auto menu = std::make_shared<ports::Menu>();
  if (devices_.empty()) {
    menu->items.push_back(std::make_shared<ports::MenuItem>(localizedString("No Devices Connected")));
  }
  for (const auto& device : devices_) {
    const auto backup = std::make_shared<ZQMenuItem>(
        base::stringWithFormat(localizedString("Backup \"%@\" now ..."), {device->name()}),
        kBackupDeviceAction);
    backup->setDescription(device->name());
    menu->items.push_back(backup);

    const auto backups = stashwick_->backupsForVolume(device->name());
    menu->items.push_back(std::make_shared<ports::MenuItem>(
        lastBackupText(backups.empty() ? std::nullopt : std::optional(backups.back()->backupDate()))));

    // Kept on purpose: a separator after every other device only, and the index is that of the first equal
    // one.
    const auto index =
        std::ranges::find_if(devices_, [&](const auto& listed) { return listed->isEqual(*device); }) -
        devices_.begin();
    if (index % 2 == 0 && device != devices_.back()) menu->items.push_back(separator());
  }
  return menu;
}

std::string ZQAgentAppDelegate::lastBackupText(const std::optional<base::Date>& date) const {
  return base::stringWithFormat(localizedString("Last Backup: %@"),
                                {date ? stashwick_->stringFromBackupDate(*date) : localizedString("Never")});
}

bool ZQAgentAppDelegate::validateMenuItem(const ports::MenuItem& /*item*/) { return true; }

void ZQAgentAppDelegate::performMenuAction(const std::string& selector, ports::MenuItem& sender) {
  if (selector == kBackupDeviceAction) _backupDeviceMenuAction(sender);
  if (selector == kSetAutomaticBackupsAction) _setAutomaticBackupsMenuAction(sender);
  if (selector == kOpenStashwickAction) _openStashwick();
}

void ZQAgentAppDelegate::_backupDeviceMenuAction(const ports::MenuItem& sender) {
  const auto* item = dynamic_cast<const ZQMenuItem*>(&sender);
  if (!item) return;
  const auto name = item->description();
  const auto chosen =
      std::ranges::find_if(devices_, [&](const auto& device) { return device->name() == name; });
  // A copy: the list may change while the question is open.
  if (chosen != devices_.end()) _promptBackupWithDevice(std::shared_ptr(*chosen), true);
}

void ZQAgentAppDelegate::_setAutomaticBackupsMenuAction(const ports::MenuItem& sender) {
  _setAutomaticBackups(sender.state != 1);
}

void ZQAgentAppDelegate::_openStashwick() { host_.desktop.launchApplication("Stashwick"); }
