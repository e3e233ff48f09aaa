#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/fake/clock.h"
#include "platform/fake/failure.h"
#include "ports/keychain.h"

namespace platform::fake {

// A keychain in memory. An item's label is its service; no item has a description.
class KeychainItems : public ports::KeychainItems {
 public:
  KeychainItems(Clock& clock, Failure& fail) : clock_(clock), fail_(fail) {}

  ports::OSStatus secItemAdd(const ports::KeychainQuery& query, const base::Secret& data) override;
  ports::KeychainMatches secItemCopyMatching(const ports::KeychainQuery& query) override;
  ports::OSStatus secItemDelete(const ports::KeychainQuery& query) override;

  // Each call from now on ends with this status and does nothing; nullopt: the keychain works again.
  void failWith(std::optional<ports::OSStatus> status);
  // The same for the next additions only.
  void failNextAdd(ports::OSStatus status);

  int calls() const;
  std::size_t items() const;
  // The secret of an item, seen from outside: no call is counted.
  std::optional<std::string> secret(const std::string& service, const std::string& account) const;

 private:
  struct Item {
    std::string service;
    std::string account;
    base::Secret data;
    base::Date created;
  };

  static bool matches(const Item& item, const ports::KeychainQuery& query);
  std::optional<ports::OSStatus> enter() REQUIRES(mutex_);

  Clock& clock_;
  Failure& fail_;
  mutable base::Mutex mutex_;
  std::vector<Item> items_ GUARDED_BY(mutex_);
  std::optional<ports::OSStatus> status_ GUARDED_BY(mutex_);
  std::deque<ports::OSStatus> addStatuses_ GUARDED_BY(mutex_);
  int calls_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform::fake
