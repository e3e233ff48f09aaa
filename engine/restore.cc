// The steps of a restore, and the erasing of a volume.

#include <utility>

#include "base/format.h"
#include "engine/password_text.h"
#include "engine/stashwick.h"

namespace {

std::string volumePath(const std::optional<std::string>& device) {
  return base::stringWithFormat("/Volumes/%@", {device});
}

std::string mountedImagePath(const std::string& device) {
  return base::stringWithFormat("/Volumes/%@-Backup/", {device});
}

}  // namespace

void ZQStashwick::restoreWithBackupInstance(std::shared_ptr<const ZQStashwickInstance> instance,
                                            Password overridePassword) {
  auto operation = std::make_shared<ZQStashwickOperation>();
  operation->setPassword(overridePassword ? std::move(overridePassword) : _encryptionPassword());
  observeOperations();
  setCurrentVolume(instance->device());
  currentOperationType_ = &ZQStashwickTypeOperationRestore;
  addOperation([this, operation, instance = std::move(instance)] {
    _restoreDiscImageWithOperation(operation, instance);
  });
}

void ZQStashwick::_restoreDiscImageWithOperation(
    const std::shared_ptr<ZQStashwickOperation>& operation,
    const std::shared_ptr<const ZQStashwickInstance>& andBackupInstance) {
  hasAuthenticationFailure_ = false;
  currentOperationType_ = &ZQStashwickTypeOperationRestore;
  tellBegin(std::nullopt);
  const auto& instance = andBackupInstance;
  addOperation([this, operation, instance] { mountImage(*operation, *instance); });
  addOperation([this, instance] { _eraseInstance(instance.get()); });
  addOperation([this, instance] { copyImage(*instance); });
  addOperation([this, instance] { unmountImage(*instance); });
}

// Kept on purpose: no "-stdinpass", no "-verbose", no log line; the password is on standard input all the
// same.
void ZQStashwick::mountImage(const ZQStashwickOperation& operation, const ZQStashwickInstance& instance) {
  const auto passwordPipe = host_.tools.makePipe();
  if (const auto password = operation.password()) {
    passwordPipe->write(engine::passwordText(password.get()));
    passwordPipe->closeWritingEnd();
  }
  setLastConsoleResult(host_.tools.run({.launchPath = "/usr/bin/hdiutil",
                                        .arguments = {"mount", instance.path()},
                                        .standardInput = passwordPipe.get(),
                                        .capture = ports::ToolRun::Capture::standardError}));
}

bool ZQStashwick::_eraseInstance(const ZQStashwickInstance* instance) {
  const auto device = instance ? std::optional(instance->device()) : std::nullopt;
  host_.tools.run({.launchPath = "/bin/rm", .arguments = {"-rf", volumePath(device)}});
  return true;
}

void ZQStashwick::copyImage(const ZQStashwickInstance& instance) {
  setLastConsoleResult(std::nullopt);
  setLastConsoleResult(host_.tools.run(
      {.launchPath = "/usr/bin/rsync",
       .arguments = {"-av", mountedImagePath(instance.device()), volumePath(instance.device())},
       .capture = ports::ToolRun::Capture::bothOutputs}));
}

void ZQStashwick::unmountImage(const ZQStashwickInstance& instance) {
  ports::ToolRun unmount{.launchPath = "/usr/bin/hdiutil",
                         .arguments = {"unmount", mountedImagePath(instance.device())}};
  debug(unmount, "_restoreDiscImageWithOperation:andBackupInstance:");
  host_.tools.run(unmount);
}
