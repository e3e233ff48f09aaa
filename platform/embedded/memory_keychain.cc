#include "platform/embedded/memory_keychain.h"

#include <algorithm>

namespace platform::embedded {

bool MemoryKeychain::matches(const Item& item, const ports::KeychainQuery& query) {
  return (!query.service || *query.service == item.service) &&
         (!query.account || *query.account == item.account);
}

ports::OSStatus MemoryKeychain::secItemAdd(const ports::KeychainQuery& query, const base::Secret& data) {
  const base::Date now = dates_.now();
  const base::MutexLock lock(mutex_);
  if (std::ranges::any_of(items_, [&](const Item& item) { return matches(item, query); })) {
    return ports::errSecDuplicateItem;
  }
  items_.push_back({query.service.value_or(""), query.account.value_or(""), data.duplicate(), now});
  return ports::errSecSuccess;
}

ports::KeychainMatches MemoryKeychain::secItemCopyMatching(const ports::KeychainQuery& query) {
  ports::KeychainMatches found;
  found.status = ports::errSecItemNotFound;
  const base::MutexLock lock(mutex_);
  for (const Item& item : items_) {
    if (!matches(item, query)) continue;
    found.status = ports::errSecSuccess;
    if (query.returnData && !found.data) found.data = item.data.duplicate();
    if (query.returnAttributes) {
      found.attributes.push_back({{"acct", item.account},
                                  {"svce", item.service},
                                  {"labl", item.service},
                                  {"cdat", item.created},
                                  {"mdat", item.created}});
    }
    if (!query.matchAll) break;
  }
  return found;
}

ports::OSStatus MemoryKeychain::secItemDelete(const ports::KeychainQuery& query) {
  const base::MutexLock lock(mutex_);
  const auto deleted = std::erase_if(items_, [&](const Item& item) { return matches(item, query); });
  return deleted == 0 ? ports::errSecItemNotFound : ports::errSecSuccess;
}

}  // namespace platform::embedded
