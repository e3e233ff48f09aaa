#include "engine/stashwick.h"

#include <utility>

#include "base/format.h"
#include "base/unicode.h"

const std::string ZQStashwickTypeOperationBackup = "ZQStashwickTypeOperationBackup";
const std::string ZQStashwickTypeOperationRestore = "ZQStashwickTypeOperationRestore";

namespace {

constexpr std::string_view kOperationsKeyPath = "operations";

std::string_view withoutLeadingWhiteSpace(std::string_view text) {
  const auto start = text.find_first_not_of(" \t\r\n\v\f");
  return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

}  // namespace

ZQStashwick::ZQStashwick(const ports::Host& host)
    : ZQStashwick(host, std::make_unique<base::OperationQueue>()) {}

ZQStashwick::ZQStashwick(const ports::Host& host, std::unique_ptr<base::OperationQueue> queue)
    : host_(host),
      catalogue_(host),
      self_(std::make_shared<ZQStashwick*>(this)),
      operationQueue_(std::move(queue)) {}

std::unique_ptr<ZQStashwick> ZQStashwick::initWithBackupQuery(
    const ports::Host& host, const std::shared_ptr<ZQStashwickQueryResult>& record) {
  // Kept on purpose: no queue, so the backup goes nowhere.
  std::unique_ptr<ZQStashwick> engine(new ZQStashwick(host, nullptr));
  engine->setBackupQuery(record);
  return engine;
}

ZQStashwick::~ZQStashwick() {
  self_.reset();
  if (operationQueue_) operationQueue_->cancelAllOperations();
  setDelegate(nullptr);
  if (operationQueue_) operationQueue_->close();
}

void ZQStashwick::setBackupQuery(const std::shared_ptr<ZQStashwickQueryResult>& record) {
  {
    const base::MutexLock lock(mutex_);
    backupQuery_ = record;
  }
  if (!record) return;
  observeOperations();
  addOperation([this, record] { _backupDataWithResult(record); });
}

std::shared_ptr<ZQStashwickQueryResult> ZQStashwick::backupQuery() const {
  const base::MutexLock lock(mutex_);
  return backupQuery_;
}

void ZQStashwick::observeOperations() {
  if (!operationQueue_) return;
  operationQueue_->addObserver(this,
                               [this] { observeValueForKeyPath(kOperationsKeyPath, operationQueue_.get()); });
}

void ZQStashwick::addOperation(base::OperationQueue::Operation step) {
  if (operationQueue_) operationQueue_->addOperation(std::move(step));
}

void ZQStashwick::cancel() {
  if (!hasOperations()) return;
  operationQueue_->removeObserver(this);
  operationQueue_->cancelAllOperations();
}

bool ZQStashwick::hasOperations() const { return operationQueue_ && operationQueue_->operationCount() != 0; }

void ZQStashwick::observeValueForKeyPath(std::string_view keyPath, const base::OperationQueue* ofObject) {
  if (ofObject != operationQueue_.get() || keyPath != kOperationsKeyPath) return;
  const auto output = lastConsoleResult();
  if (!output) return;
  const std::string status = _statusMessageFromXML(output).value_or(*output);
  const bool failed = status.find("failed") != std::string::npos;
  if (status.find("Auth") != std::string::npos) hasAuthenticationFailure_ = true;
  const auto listener = delegate();
  if (failed) {
    // Kept on purpose: a failure of the last step finds the queue empty and is not told.
    if (listener && hasOperations()) {
      listener->StashwickDidFail(*this, {std::string(ZQStashwickErrorDomain), -1, status},
                                 currentOperationType_);
    }
    cancel();
  }
  if (failed || hasOperations()) return;
  if (listener) listener->StashwickDidFinish(*this, currentOperationType_);
  operationQueue_->removeObserver(this);
  setLastConsoleResult(std::nullopt);
}

ZQStashwick::Text ZQStashwick::_statusMessageFromXML(const Text& xml) {
  constexpr std::string_view kOpen = "<string>";
  if (!xml) return std::nullopt;
  std::string_view text = *xml;
  const auto open = text.find(kOpen);
  if (open == std::string_view::npos) return std::nullopt;
  text = withoutLeadingWhiteSpace(text.substr(open + kOpen.size()));
  text = text.substr(0, text.find("</string>"));
  return text.empty() ? std::nullopt : Text(text);
}

void ZQStashwick::tellBegin(std::optional<ZQStashwickOperationType> type) {
  if (!delegate()) return;
  host_.mainQueue.post([weakSelf = std::weak_ptr(self_), type] {
    const auto self = weakSelf.lock();
    if (!self) return;
    ZQStashwick& engine = **self;
    const auto listener = engine.delegate();
    if (listener) listener->StashwickDidBegin(engine, type.value_or(engine.currentOperationType_.load()));
  });
}

void ZQStashwick::debug(ports::ToolRun& run, std::string_view step) const {
  if (!debugMode_) return;
  run.arguments.emplace_back("-verbose");
  host_.log.log(base::stringWithFormat("[DEBUG] %@ - NSTask Arguments: %@",
                                       {step, base::arrayDescription(run.arguments)}));
}

std::shared_ptr<ZQStashwickDelegate> ZQStashwick::delegate() const {
  const base::MutexLock lock(mutex_);
  return delegate_.lock();
}

void ZQStashwick::setDelegate(const std::shared_ptr<ZQStashwickDelegate>& delegate) {
  const base::MutexLock lock(mutex_);
  delegate_ = delegate;
}

ZQStashwick::Text ZQStashwick::currentVolume() const {
  const base::MutexLock lock(mutex_);
  return currentVolume_;
}

void ZQStashwick::setCurrentVolume(std::string name) {
  const base::MutexLock lock(mutex_);
  currentVolume_ = std::move(name);
}

ZQStashwick::Text ZQStashwick::lastConsoleResult() const {
  const base::MutexLock lock(mutex_);
  return lastConsoleResult_;
}

void ZQStashwick::setLastConsoleResult(std::optional<std::string_view> output) {
  const base::MutexLock lock(mutex_);
  lastConsoleResult_.reset();
  if (output) lastConsoleResult_ = base::repairedUTF8(*output);
}

std::string ZQStashwick::backupDirectoryForVolume(const Text& volume) const {
  return volume ? catalogue_.backupDirectoryForVolume(*volume) : catalogue_.backupDirectory();
}

std::uint64_t ZQStashwick::numberOfBackupsForVolume(const std::string& volume) const {
  return catalogue_.numberOfBackupsForVolume(volume);
}

BackupCatalogue::Instances ZQStashwick::backupsForVolume(const std::string& volume) const {
  return catalogue_.backupsForVolume(volume);
}

std::optional<base::Date> ZQStashwick::lastBackupDate() const { return catalogue_.lastBackupDate(); }

std::string ZQStashwick::stringFromBackupDate(base::Date date) const {
  return catalogue_.stringFromBackupDate(date);
}
