// The question about a volume, the automatic-backup list, and the start of a backup.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include "app/agent_app_delegate.h"
#include "base/format.h"
#include "store/backup_catalogue.h"
#include "store/file_size.h"

namespace {

constexpr std::int32_t kBackUpAutomatically = 1;
constexpr std::int32_t kIgnore = -1;
constexpr double kRetrySeconds = 30.0;

std::string volumePath(const ZQRemovableDevice& device) {
  return base::stringWithFormat("/Volumes/%@", {device.name()});
}

// A property-list value as the platform reads whole numbers from it: texts count by their leading number,
// blanks before it and a sign allowed.
std::int64_t integerValue(const base::PropertyList& value) {
  if (const auto* integer = value.as<std::int64_t>()) return *integer;
  if (const auto* boolean = value.as<bool>()) return *boolean ? 1 : 0;
  if (const auto* real = value.as<double>())
    return std::abs(*real) < 0x1p63 ? static_cast<std::int64_t>(*real) : 0;
  std::int64_t parsed = 0;
  if (const auto* text = value.as<std::string>()) {
    std::string_view number = *text;
    number.remove_prefix(std::min(number.find_first_not_of(" \t\n\v\f\r"), number.size()));
    if (number.starts_with('+') && !number.starts_with("+-")) number.remove_prefix(1);
    std::from_chars(number.data(), number.data() + number.size(), parsed);
  }
  return parsed;
}

// Truncates; a negative count wraps around, on purpose, and none is out of range.
std::uint64_t wrappedByteCount(float bytes) {
  if (std::isnan(bytes)) return 0;
  if (bytes >= 0x1p64F) return UINT64_MAX;
  if (bytes >= 0) return static_cast<std::uint64_t>(bytes);
  return bytes < -0x1p63F ? std::uint64_t{1} << 63
                          : static_cast<std::uint64_t>(static_cast<std::int64_t>(bytes));
}

}  // namespace

void ZQAgentAppDelegate::_promptBackupWithDevice(const std::shared_ptr<ZQRemovableDevice>& device,
                                                 bool ignoresStatus) {
  const std::int32_t flag = _backupStateForDevice(*device);
  if (flag == kIgnore && !ignoresStatus) return;
  if (flag == kBackUpAutomatically && !ignoresStatus) {
    _backupDevice(device);
    return;
  }
  host_.desktop.activateIgnoringOtherApps();
  host_.desktop.playSound("Alert.wav");
  const auto answer = host_.desktop.runModal(alertForDevice(*device, flag));
  if (answer.returnCode == ports::kAlertThirdButtonReturn) _addDeviceToAutomaticBackups(*device, kIgnore);
  if (answer.returnCode == ports::kAlertFirstButtonReturn) {
    if (answer.suppressed) _addDeviceToAutomaticBackups(*device, kBackUpAutomatically);
    _backupDevice(device);
  }
}

ports::Alert ZQAgentAppDelegate::alertForDevice(const ZQRemovableDevice& device,
                                                std::int32_t backupFlag) const {
  return {
      .icon = device.icon(),
      .messageText = base::stringWithFormat(localizedString("Backup \"%@\"?"), {device.name()}),
      .informativeText = base::stringWithFormat(
          localizedString("This allows you to restore the contents of this volume at any time in the future. "
                          "The backup will take up approximately %@ of space on your hard drive."),
          {FileSize::stringFromFileSize(estimatedBackupSize(device))}),
      .buttons = {localizedString("Backup"), localizedString("Later"), localizedString("Ignore Volume")},
      .showsSuppressionButton = true,
      .suppressionTitle = localizedString("Backup this volume automatically in the future"),
      .suppressed = backupFlag == kBackUpAutomatically,
  };
}

// Single precision throughout, on purpose.
std::uint64_t ZQAgentAppDelegate::estimatedBackupSize(const ZQRemovableDevice& device) const {
  const auto free = static_cast<float>(host_.files.fileSystemFreeSize(volumePath(device)).value_or(0));
  return wrappedByteCount((device.size() - free) * 0.8F);
}

void ZQAgentAppDelegate::_backupDevice(const std::shared_ptr<ZQRemovableDevice>& device) {
  if (canRunInBackground()) {
    // Hidden files "considered": the record leaves them out of its list, the image holds them all the same.
    stashwick_->setBackupQuery(
        ZQStashwickQueryResult::initWithPath(host_.files, {volumePath(*device), true}, true));
    return;
  }
  host_.mainQueue.postAfter(kRetrySeconds, [weakSelf = weak_from_this(), device] {
    if (const auto self = weakSelf.lock()) self->_backupDevice(device);
  });
  host_.log.log("[Stashwick] Stashwick is currently running. Postponing backup action...");
}

std::int32_t ZQAgentAppDelegate::_backupStateForDevice(const ZQRemovableDevice& device) const {
  const auto list = host_.archives.dictionaryWithContentsOfFile(_manifestLocation());
  if (!list || !device.UDID()) return 0;
  const auto entry = list->find(*device.UDID());
  return entry == list->end() ? 0 : static_cast<std::int32_t>(integerValue(entry->second));
}

void ZQAgentAppDelegate::_addDeviceToAutomaticBackups(const ZQRemovableDevice& device,
                                                      std::int32_t backupFlag) {
  if (!device.UDID()) return;
  auto list = host_.archives.dictionaryWithContentsOfFile(_manifestLocation())
                  .value_or(base::PropertyList::Dictionary{});
  list.insert_or_assign(*device.UDID(), base::PropertyList(std::int64_t{backupFlag}));
  host_.archives.writeDictionary(list, _manifestLocation());
}

std::string ZQAgentAppDelegate::_manifestLocation() const {
  return BackupCatalogue(host_).backupDirectory() + "/StashwickHelper.plist";
}

bool ZQAgentAppDelegate::_createsAutomaticBackups() const {
  return host_.defaults.boolForKey("ZQCreatesAutomaticBackups");
}

void ZQAgentAppDelegate::_setAutomaticBackups(bool creates) {
  host_.defaults.setBool(creates, "ZQCreatesAutomaticBackups");
}
