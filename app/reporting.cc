// What the engine tells: volumes held and let go, the menu kept current, failures shown.

#include "app/agent_app_delegate.h"
#include "base/format.h"

std::vector<std::shared_ptr<ZQRemovableDevice>> ZQAgentAppDelegate::matchingDevices(
    const ZQStashwick& engine) const {
  const auto volume = engine.currentVolume();
  auto devices = deviceCenter_->availableDevices();
  std::erase_if(devices, [&](const auto& device) { return device->name() != volume; });
  return devices;
}

void ZQAgentAppDelegate::unclaimMatchingDevices(const ZQStashwick& engine) {
  // The begin call comes by the main queue, which a question may hold up: were it to come after this, the
  // volume would stay claimed for good.
  host_.mainQueue.performAndWait([] {});
  for (const auto& device : matchingDevices(engine)) device->unclaim();
}

void ZQAgentAppDelegate::endOperation(ZQStashwick& engine) {
  engine.setBackupQuery(nullptr);
  host_.mainQueue.performAndWait([this] { _reloadStatusMenu(); });
}

void ZQAgentAppDelegate::StashwickDidBegin(ZQStashwick& engine, ZQStashwickOperationType /*type*/) {
  for (const auto& device : matchingDevices(engine)) device->claim();
  _reloadStatusMenu();
}

void ZQAgentAppDelegate::StashwickDidFail(ZQStashwick& engine, const base::DomainError& withError,
                                          ZQStashwickOperationType type) {
  host_.log.log(
      base::stringWithFormat("[Stashwick] [ERROR] %@ Operation: %@",
                             {withError.description(), type ? base::FormatArgument(*type) : std::nullopt}));
  unclaimMatchingDevices(engine);
  // By identity, on purpose: an equal text from elsewhere is neither.
  if (type == &ZQStashwickTypeOperationBackup) {
    showFailure(localizedString("Backup Failed"),
                "\"%@\" could not be backed up because of the following reason:\n\n%@\n%@ (Error %li)",
                engine, withError);
  } else if (type == &ZQStashwickTypeOperationRestore) {
    showFailure(localizedString("Restore Failed"),
                "\"%@\" could not be restored because of the following reason:\n\n%@\n%@ (Error %li)", engine,
                withError);
  }
  endOperation(engine);
}

void ZQAgentAppDelegate::showFailure(const std::string& title, const char* messageFormat,
                                     const ZQStashwick& engine, const base::DomainError& error) {
  // The composed message is itself handed over as a format, on purpose; see Desktop::runCriticalAlertPanel.
  const std::string message = base::stringWithFormat(
      messageFormat, {engine.currentVolume(), error.localizedFailureReason, error.domain, error.code});
  host_.mainQueue.performAndWait([&] { host_.desktop.runCriticalAlertPanel(title, message, "OK"); });
}

void ZQAgentAppDelegate::StashwickDidFinish(ZQStashwick& engine, ZQStashwickOperationType /*type*/) {
  host_.log.log("[Stashwick] All operations have completed successfully.");
  unclaimMatchingDevices(engine);
  endOperation(engine);
}
