#include "platform/fake/keychain.h"

#include <algorithm>
#include <utility>

namespace platform::fake {

bool KeychainItems::matches(const Item& item, const ports::KeychainQuery& query) {
  return (!query.service || *query.service == item.service) &&
         (!query.account || *query.account == item.account);
}

std::optional<ports::OSStatus> KeychainItems::enter() {
  ++calls_;
  return status_;
}

ports::OSStatus KeychainItems::secItemAdd(const ports::KeychainQuery& query, const base::Secret& data) {
  const base::MutexLock lock(mutex_);
  if (const auto status = enter()) return *status;
  if (!addStatuses_.empty()) {
    const auto status = addStatuses_.front();
    addStatuses_.pop_front();
    return status;
  }
  if (!query.service || !query.account) fail_("a keychain item is added without service or account");
  const auto same = [&](const Item& item) { return matches(item, query); };
  if (std::ranges::any_of(items_, same)) return ports::errSecDuplicateItem;
  items_.push_back({query.service.value_or(""), query.account.value_or(""), data.duplicate(), clock_.now()});
  return ports::errSecSuccess;
}

ports::KeychainMatches KeychainItems::secItemCopyMatching(const ports::KeychainQuery& query) {
  const base::MutexLock lock(mutex_);
  if (const auto status = enter()) return {.status = *status, .attributes = {}, .data = {}};
  ports::KeychainMatches found{.status = ports::errSecItemNotFound, .attributes = {}, .data = {}};
  for (const auto& item : items_) {
    if (!matches(item, query)) continue;
    if (query.returnAttributes) {
      found.attributes.push_back({{"acct", item.account},
                                  {"svce", item.service},
                                  {"labl", item.service},
                                  {"cdat", item.created},
                                  {"mdat", item.created}});
    }
    if (query.returnData && !found.data) found.data = item.data.duplicate();
    found.status = ports::errSecSuccess;
    if (!query.matchAll) break;
  }
  return found;
}

ports::OSStatus KeychainItems::secItemDelete(const ports::KeychainQuery& query) {
  const base::MutexLock lock(mutex_);
  if (const auto status = enter()) return *status;
  const auto deleted = std::erase_if(items_, [&](const Item& item) { return matches(item, query); });
  return deleted == 0 ? ports::errSecItemNotFound : ports::errSecSuccess;
}

void KeychainItems::failWith(std::optional<ports::OSStatus> status) {
  const base::MutexLock lock(mutex_);
  status_ = status;
}

void KeychainItems::failNextAdd(ports::OSStatus status) {
  const base::MutexLock lock(mutex_);
  addStatuses_.push_back(status);
}

int KeychainItems::calls() const {
  const base::MutexLock lock(mutex_);
  return calls_;
}

std::size_t KeychainItems::items() const {
  const base::MutexLock lock(mutex_);
  return items_.size();
}

std::optional<std::string> KeychainItems::secret(const std::string& service,
                                                 const std::string& account) const {
  const base::MutexLock lock(mutex_);
  for (const auto& item : items_) {
    if (item.service == service && item.account == account) return std::string(item.data.reveal());
  }
  return std::nullopt;
}

}  // namespace platform::fake
