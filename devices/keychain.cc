#include "devices/keychain.h"

#include <utility>

#include "base/unicode.h"

namespace {

// Stores an error for a status other than success; tells whether it was success.
bool report(ports::OSStatus status, KXKeychain::ErrorSlot error) {
  if (status == ports::errSecSuccess) return true;
  if (error) *error = base::DomainError{std::string(KXKeychainErrorDomain), status, std::nullopt};
  return false;
}

}  // namespace

ports::KeychainQuery KXKeychain::_queryForService(const Text& service, const Text& account) {
  return {.service = service, .account = account};
}

std::optional<KXKeychain::Accounts> KXKeychain::allAccounts(ports::KeychainItems& keychain, ErrorSlot error) {
  return accountsForService(keychain, std::nullopt, error);
}

std::optional<KXKeychain::Accounts> KXKeychain::accountsForService(ports::KeychainItems& keychain,
                                                                   const Text& service, ErrorSlot error) {
  auto query = _queryForService(service, std::nullopt);
  query.returnAttributes = true;
  query.matchAll = true;
  auto matches = keychain.secItemCopyMatching(query);
  if (!report(matches.status, error)) return std::nullopt;
  return std::move(matches.attributes);
}

std::optional<base::Secret> KXKeychain::passwordForService(ports::KeychainItems& keychain,
                                                           const Text& service, const Text& account,
                                                           ErrorSlot error) {
  auto data = passwordDataForService(keychain, service, account, error);
  if (!data || data->empty() || !base::isValidUTF8(data->reveal())) return std::nullopt;
  return data;
}

std::optional<base::Secret> KXKeychain::passwordDataForService(ports::KeychainItems& keychain,
                                                               const Text& service, const Text& account,
                                                               ErrorSlot error) {
  if (!service || !account) {
    report(KXKeychainErrorMissingArgument, error);
    return std::nullopt;
  }
  auto query = _queryForService(service, account);
  query.returnData = true;
  auto matches = keychain.secItemCopyMatching(query);
  if (!report(matches.status, error)) return std::nullopt;
  return std::move(matches.data);
}

bool KXKeychain::deletePasswordForService(ports::KeychainItems& keychain, const Text& service,
                                          const Text& account, ErrorSlot error) {
  ports::OSStatus status = KXKeychainErrorMissingArgument;
  if (service && account) status = keychain.secItemDelete(_queryForService(service, account));
  return report(status, error);
}

bool KXKeychain::setPassword(ports::KeychainItems& keychain, const base::Secret* password,
                             const Text& forService, const Text& account, ErrorSlot error) {
  return setPasswordData(keychain, password, forService, account, error);
}

bool KXKeychain::setPasswordData(ports::KeychainItems& keychain, const base::Secret* data,
                                 const Text& forService, const Text& account, ErrorSlot error) {
  ports::OSStatus status = KXKeychainErrorMissingArgument;
  if (data && forService && account) {
    deletePasswordForService(keychain, forService, account);
    status = keychain.secItemAdd(_queryForService(forService, account), *data);
  }
  return report(status, error);
}
