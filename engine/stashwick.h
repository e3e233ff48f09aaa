#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/domain_error.h"
#include "base/mutex.h"
#include "base/operation_queue.h"
#include "base/secret.h"
#include "ports/host.h"
#include "store/backup_catalogue.h"
#include "store/instance.h"
#include "store/operation.h"
#include "store/query_result.h"

class ZQStashwick;

// The operation types. Each is one object: receivers compare addresses.
using ZQStashwickOperationType = const std::string*;
extern const std::string ZQStashwickTypeOperationBackup;
extern const std::string ZQStashwickTypeOperationRestore;

inline constexpr std::string_view ZQStashwickErrorDomain = "ZQStashwickErrorDomain";

// Who is told how an operation goes. What is not overridden is not told.
class ZQStashwickDelegate {
 public:
  virtual ~ZQStashwickDelegate() = default;
  // An operation starts. On the main thread.
  virtual void StashwickDidBegin(ZQStashwick& /*engine*/, ZQStashwickOperationType /*type*/) {}
  // A tool's status text holds "failed" and further steps are queued; they are cancelled when this returns.
  // On the thread that changed the queue, as a rule the engine's worker.
  virtual void StashwickDidFail(ZQStashwick& /*engine*/, const base::DomainError& /*withError*/,
                                ZQStashwickOperationType /*type*/) {}
  // All steps are done, without a failure. On the same thread as StashwickDidFail.
  virtual void StashwickDidFinish(ZQStashwick& /*engine*/, ZQStashwickOperationType /*type*/) {}
};

// The backup engine: runs one backup or restore at a time as steps on a serial queue, each driving a
// command-line tool, and judges success from the tools' texts alone.
//
// Kept on purpose: a failure of the last step ends the run with neither fail nor finish, and its text is
// judged again when the next run's first step is queued; starting twice before an end makes every queue
// change be judged twice; an engine made with a scan record has no queue and never runs anything.
//
// Start and destroy it on the main thread; every other member may be called from any thread. The destructor
// waits for the step that runs: end its tool, and close the main queue, first.
class ZQStashwick {
 public:
  using Text = std::optional<std::string>;
  using Password = ZQStashwickOperation::Password;

  explicit ZQStashwick(const ports::Host& host);
  static std::unique_ptr<ZQStashwick> initWithBackupQuery(
      const ports::Host& host, const std::shared_ptr<ZQStashwickQueryResult>& record);
  ~ZQStashwick();
  ZQStashwick(const ZQStashwick&) = delete;
  ZQStashwick& operator=(const ZQStashwick&) = delete;

  // Starts a backup of the scanned volume into its folder of the store. Null only drops the record.
  void setBackupQuery(const std::shared_ptr<ZQStashwickQueryResult>& record);
  std::shared_ptr<ZQStashwickQueryResult> backupQuery() const;

  // Starts a restore of the backup onto the volume that it was made from, whose contents are deleted. A null
  // password is looked up in the keychain.
  void restoreWithBackupInstance(std::shared_ptr<const ZQStashwickInstance> instance,
                                 Password overridePassword);

  // Stops what has not started, without telling the delegate. Nothing happens when nothing is queued.
  void cancel();

  bool hasOperations() const;
  // Null in an engine that has no queue.
  base::OperationQueue* operationQueue() const { return operationQueue_.get(); }
  // The type of the current operation, or of the last one; null before the first.
  ZQStashwickOperationType currentOperationType() const { return currentOperationType_; }
  // The name of the volume being worked on, or of the last one.
  Text currentVolume() const;
  // Whether a tool's status text mentioned authentication. Only a restore sets it back.
  bool hasAuthenticationFailure() const { return hasAuthenticationFailure_; }

  // Erase the volume after the next backup, whatever comes of the backup. Off at first and after each use.
  bool erasesDataAfterBackup() const { return erasesDataAfterBackup_; }
  void setErasesDataAfterBackup(bool erases) { erasesDataAfterBackup_ = erases; }
  // "-verbose" for the tools, and their argument lists in the log.
  bool debugMode() const { return debugMode_; }
  void setDebugMode(bool debugs) { debugMode_ = debugs; }

  // Held weakly.
  std::shared_ptr<ZQStashwickDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<ZQStashwickDelegate>& delegate);

  // The catalogue of the store; see BackupCatalogue.
  std::string backupDirectoryForVolume(const Text& volume) const;
  std::uint64_t numberOfBackupsForVolume(const std::string& volume) const;
  BackupCatalogue::Instances backupsForVolume(const std::string& volume) const;
  std::optional<base::Date> lastBackupDate() const;
  std::string stringFromBackupDate(base::Date date) const;

  // The completion detector: called after each change of the queue's operations, on the thread that made it.
  void observeValueForKeyPath(std::string_view keyPath, const base::OperationQueue* ofObject);

  // The first string element of a tool's property-list output, without leading white space; nullopt when
  // there is none or it is empty.
  static Text _statusMessageFromXML(const Text& xml);

  // Deletes the contents of the backup's volume. Always true.
  bool _eraseInstance(const ZQStashwickInstance* instance);

 private:
  ZQStashwick(const ports::Host& host, std::unique_ptr<base::OperationQueue> queue);

  // Nothing happens in an engine that has no queue.
  void observeOperations();
  void addOperation(base::OperationQueue::Operation step);

  // Steps of a backup, in order; each runs on the queue's worker.
  void _backupDataWithResult(const std::shared_ptr<ZQStashwickQueryResult>& record);
  void _createDiscImageWithOperation(const std::shared_ptr<ZQStashwickOperation>& operation);
  std::vector<std::string> imageToolArguments(const ZQStashwickOperation& operation,
                                              const std::string& volume, const std::string& backupName) const;

  // Steps of a restore, in order; each runs on the queue's worker.
  void _restoreDiscImageWithOperation(const std::shared_ptr<ZQStashwickOperation>& operation,
                                      const std::shared_ptr<const ZQStashwickInstance>& andBackupInstance);
  void mountImage(const ZQStashwickOperation& operation, const ZQStashwickInstance& instance);
  void copyImage(const ZQStashwickInstance& instance);
  void unmountImage(const ZQStashwickInstance& instance);

  void tellBegin(std::optional<ZQStashwickOperationType> type);
  // In debug mode: "-verbose" for the tool, and its arguments in the log under the name of the step.
  void debug(ports::ToolRun& run, std::string_view step) const;
  std::string _localizedBackupName() const;
  Password _encryptionPassword() const;
  Text _backupEncryptionType() const;

  Text lastConsoleResult() const;
  void setLastConsoleResult(std::optional<std::string_view> output);
  void setCurrentVolume(std::string name);

  ports::Host host_;
  BackupCatalogue catalogue_;
  mutable base::Mutex mutex_;
  std::shared_ptr<ZQStashwickQueryResult> backupQuery_ GUARDED_BY(mutex_);
  std::atomic<ZQStashwickOperationType> currentOperationType_ = nullptr;
  Text lastConsoleResult_ GUARDED_BY(mutex_);  // the text of the last tool run that captured any
  std::weak_ptr<ZQStashwickDelegate> delegate_ GUARDED_BY(mutex_);
  Text currentVolume_ GUARDED_BY(mutex_);
  std::atomic<bool> hasAuthenticationFailure_ = false;
  std::atomic<bool> erasesDataAfterBackup_ = false;
  std::atomic<bool> debugMode_ = false;
  // Tells a begin call that is still on its way to the main thread that the engine is gone.
  std::shared_ptr<ZQStashwick*> self_;
  std::unique_ptr<base::OperationQueue> operationQueue_;
};
