// The steps of a backup into a disk image.

#include <algorithm>
#include <utility>

#include "base/format.h"
#include "devices/keychain.h"
#include "engine/password_text.h"
#include "engine/stashwick.h"

namespace {

constexpr const char* kKeychainService = "Stashwick 3";

}  // namespace

void ZQStashwick::_backupDataWithResult(const std::shared_ptr<ZQStashwickQueryResult>& record) {
  auto operation = std::make_shared<ZQStashwickOperation>();
  operation->setPassword(_encryptionPassword());
  operation->setFormat("HFS+");
  operation->setEncryption(_backupEncryptionType());
  operation->setResult(record);
  setCurrentVolume(std::string(record->path().lastPathComponent()));
  addOperation([this, operation] { _createDiscImageWithOperation(operation); });
}

void ZQStashwick::_createDiscImageWithOperation(const std::shared_ptr<ZQStashwickOperation>& operation) {
  currentOperationType_ = &ZQStashwickTypeOperationBackup;
  tellBegin(&ZQStashwickTypeOperationBackup);
  const std::string volume(operation->result()->path().lastPathComponent());
  const auto passwordPipe = host_.tools.makePipe();
  const std::string backupName = _localizedBackupName();
  // A manifest holds the whole list. An unplugged volume ends its scan, and so this wait.
  operation->result()->waitUntilReady();
  host_.archives.archiveRootObject(
      *operation, base::stringWithFormat("%@/%@.manifest", {backupDirectoryForVolume(volume), backupName}));
  passwordPipe->write(engine::passwordText(operation->password().get()));
  passwordPipe->closeWritingEnd();

  ports::ToolRun create{.launchPath = "/usr/bin/hdiutil",
                        .arguments = imageToolArguments(*operation, volume, backupName),
                        .capture = ports::ToolRun::Capture::bothOutputs};
  debug(create, "_createDiscImageWithOperation:");
  if (std::ranges::find(create.arguments, "-stdinpass") != create.arguments.end()) {
    create.standardInput = passwordPipe.get();
  }
  setLastConsoleResult(host_.tools.run(create));

  if (erasesDataAfterBackup_) {
    // Kept on purpose: whatever the tool said.
    const auto backups = backupsForVolume(volume);
    _eraseInstance(backups.empty() ? nullptr : backups.back().get());
    erasesDataAfterBackup_ = false;
  }
}

std::vector<std::string> ZQStashwick::imageToolArguments(const ZQStashwickOperation& operation,
                                                         const std::string& volume,
                                                         const std::string& backupName) const {
  const auto encryption = operation.encryption();
  const auto password = operation.password();
  std::vector<std::string> arguments = {
      "create",
      "-fs",
      operation.format().value_or("(null)"),
      "-volname",
      base::stringWithFormat("%@-Backup", {volume}),
      "-srcfolder",
      operation.result()->path().path,
      base::stringWithFormat("%@/%@.dmg", {backupDirectoryForVolume(volume), backupName})};
  if (encryption && password && !password->empty()) {
    arguments.insert(arguments.end(), {"-encryption", *encryption, "-stdinpass"});
  }
  arguments.emplace_back("-plist");
  return arguments;
}

std::string ZQStashwick::_localizedBackupName() const {
  return host_.dates.mediumDateAndTime(host_.dates.now(), host_.dates.preferredLanguages().front());
}

ZQStashwick::Password ZQStashwick::_encryptionPassword() const {
  auto password = KXKeychain::passwordForService(host_.keychain, kKeychainService, host_.user.fullUserName());
  return password ? std::make_shared<const base::Secret>(std::move(*password)) : nullptr;
}

ZQStashwick::Text ZQStashwick::_backupEncryptionType() const {
  return host_.defaults.stringForKey("ZQStashwickBackupEncryption");
}
