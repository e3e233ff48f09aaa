#include "cli/engine_run.h"

#include <algorithm>
#include <atomic>

#include "cli/image_tool.h"

namespace cli {
namespace {

constexpr std::string_view kEncryptionKey = "ZQStashwickBackupEncryption";

ports::Host hostWith(const ports::Host& host, ports::KeychainItems& keychain, ports::UserDefaults& defaults,
                     ports::ToolRuns& tools) {
  return {host.disks, keychain,    host.desktop, tools,     host.mainQueue, host.files,        host.archives,
          defaults,   host.bundle, host.dates,   host.user, host.log,       host.notifications};
}

}  // namespace

ports::KeychainMatches KeychainWithPassword::secItemCopyMatching(const ports::KeychainQuery& query) {
  if (!password_ || !query.returnData) return keychain_.secItemCopyMatching(query);
  return {.status = ports::errSecSuccess, .attributes = {}, .data = password_->duplicate()};
}

std::optional<std::string> DefaultsWithEncryption::stringForKey(std::string_view key) {
  return key == kEncryptionKey ? method_ : defaults_.stringForKey(key);
}

std::string WatchedToolRuns::run(const ports::ToolRun& run) {
  {
    const base::MutexLock lock(mutex_);
    begun_.push_back(run.launchPath);
  }
  const bool isCaptured = run.capture != ports::ToolRun::Capture::none;
  ports::ToolRun silent = run;
  if (!isCaptured) silent.capture = ports::ToolRun::Capture::bothOutputs;
  std::string output = tools_.run(silent);
  if (!isCaptured) return {};
  if (auto problem = problemIn(output)) {
    const base::MutexLock lock(mutex_);
    failure_ = std::move(problem);
  }
  return output;
}

std::optional<Problem> WatchedToolRuns::failure() const {
  const base::MutexLock lock(mutex_);
  return failure_;
}

bool WatchedToolRuns::hasBegun(std::string_view launchPath) const {
  const base::MutexLock lock(mutex_);
  return std::ranges::find(begun_, launchPath) != begun_.end();
}

class EngineRun::Listener : public ZQStashwickDelegate {
 public:
  void StashwickDidFail(ZQStashwick& /*engine*/, const base::DomainError& /*withError*/,
                        ZQStashwickOperationType /*type*/) override {
    failed = true;
  }
  void StashwickDidFinish(ZQStashwick& /*engine*/, ZQStashwickOperationType /*type*/) override {
    finished = true;
  }
  std::atomic<bool> failed = false;
  std::atomic<bool> finished = false;
};

EngineRun::EngineRun(Session& session, const Encryption& encryption)
    : session_(session),
      keychain_(session.host().keychain, encryption.password),
      defaults_(session.host().defaults, encryption.method),
      tools_(session.host().tools),
      listener_(std::make_shared<Listener>()),
      engine_(hostWith(session.host(), keychain_, defaults_, tools_)) {
  engine_.setDelegate(listener_);
}

EngineRun::~EngineRun() { engine_.operationQueue()->removeObserver(this); }

Expected<bool> EngineRun::wait(const std::string& activity) {
  auto& queue = *engine_.operationQueue();
  queue.addObserver(this, [this] { session_.host().mainQueue.post([] {}); });
  const bool ended = session_.serveUntil(activity, [this] { return !engine_.hasOperations(); });
  if (!ended) engine_.cancel();
  // The last change of the queue is judged before this returns.
  queue.waitUntilAllOperationsAreFinished();
  if (!ended) return Session::interrupted();
  if (listener_->failed)
    return tools_.failure().value_or(Problem{Exit::failed, "the disk image tool did not say why"});
  return listener_->finished.load();
}

}  // namespace cli
