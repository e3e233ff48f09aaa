#pragma once

#include <vector>

#include "base/mutex.h"
#include "ports/dates.h"
#include "ports/keychain.h"

namespace platform::embedded {

// A keychain that lives as long as the process. An item's label is its service; no item has a description.
class MemoryKeychain : public ports::KeychainItems {
 public:
  explicit MemoryKeychain(ports::Dates& dates) : dates_(dates) {}

  ports::OSStatus secItemAdd(const ports::KeychainQuery& query, const base::Secret& data) override;
  ports::KeychainMatches secItemCopyMatching(const ports::KeychainQuery& query) override;
  ports::OSStatus secItemDelete(const ports::KeychainQuery& query) override;

 private:
  struct Item {
    std::string service;
    std::string account;
    base::Secret data;
    base::Date created;
  };

  static bool matches(const Item& item, const ports::KeychainQuery& query);

  ports::Dates& dates_;
  base::Mutex mutex_;
  std::vector<Item> items_ GUARDED_BY(mutex_);
};

}  // namespace platform::embedded
