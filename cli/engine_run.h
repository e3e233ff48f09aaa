#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "cli/session.h"
#include "engine/stashwick.h"

namespace cli {

// The keychain with one password on top, which stands for every item whose secret is asked for. Any thread.
class KeychainWithPassword : public ports::KeychainItems {
 public:
  KeychainWithPassword(ports::KeychainItems& keychain, Session::Password password)
      : keychain_(keychain), password_(std::move(password)) {}

  ports::OSStatus secItemAdd(const ports::KeychainQuery& query, const base::Secret& data) override {
    return keychain_.secItemAdd(query, data);
  }
  ports::KeychainMatches secItemCopyMatching(const ports::KeychainQuery& query) override;
  ports::OSStatus secItemDelete(const ports::KeychainQuery& query) override {
    return keychain_.secItemDelete(query);
  }

 private:
  ports::KeychainItems& keychain_;
  const Session::Password password_;
};

// Settings in which backups are encrypted by a certain method, or not at all. Any thread.
class DefaultsWithEncryption : public ports::UserDefaults {
 public:
  DefaultsWithEncryption(ports::UserDefaults& defaults, std::optional<std::string> method)
      : defaults_(defaults), method_(std::move(method)) {}

  void registerDefaults(const std::optional<base::PropertyList::Dictionary>& defaults) override {
    defaults_.registerDefaults(defaults);
  }
  bool boolForKey(std::string_view key) override { return defaults_.boolForKey(key); }
  void setBool(bool value, std::string_view key) override { defaults_.setBool(value, key); }
  std::optional<std::string> stringForKey(std::string_view key) override;
  void setString(const std::optional<std::string>& value, std::string_view key) override {
    defaults_.setString(value, key);
  }

 private:
  ports::UserDefaults& defaults_;
  const std::optional<std::string> method_;
};

// Tool runs that remember which were begun, and what went wrong. What a tool says that nobody captures is
// dropped. Any thread.
class WatchedToolRuns : public ports::ToolRuns {
 public:
  explicit WatchedToolRuns(ports::ToolRuns& tools) : tools_(tools) {}

  std::unique_ptr<ports::InputPipe> makePipe() override { return tools_.makePipe(); }
  std::string run(const ports::ToolRun& run) override;

  // Why the last run that captured anything and speaks of a failure did fail.
  std::optional<Problem> failure() const;
  bool hasBegun(std::string_view launchPath) const;

 private:
  ports::ToolRuns& tools_;
  mutable base::Mutex mutex_;
  std::optional<Problem> failure_ GUARDED_BY(mutex_);
  std::vector<std::string> begun_ GUARDED_BY(mutex_);
};

// An engine for one backup or restore. Main thread.
class EngineRun {
 public:
  struct Encryption {
    std::optional<std::string> method;
    Session::Password password;
  };

  EngineRun(Session& session, const Encryption& encryption);
  ~EngineRun();
  EngineRun(const EngineRun&) = delete;
  EngineRun& operator=(const EngineRun&) = delete;

  ZQStashwick& engine() { return engine_; }
  const WatchedToolRuns& tools() const { return tools_; }

  // Returns when the engine has nothing left to do: whether it said that it finished, a Problem when it said
  // that it failed or was interrupted. Neither is said of a failure in the last step.
  Expected<bool> wait(const std::string& activity);

 private:
  class Listener;

  Session& session_;
  KeychainWithPassword keychain_;
  DefaultsWithEncryption defaults_;
  WatchedToolRuns tools_;
  std::shared_ptr<Listener> listener_;
  ZQStashwick engine_;
};

}  // namespace cli
