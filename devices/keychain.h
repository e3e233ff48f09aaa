#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/domain_error.h"
#include "base/property_list.h"
#include "base/secret.h"
#include "ports/keychain.h"

inline constexpr std::string_view KXKeychainErrorDomain = "com.stashwick.keychain";
inline constexpr std::int32_t KXKeychainErrorMissingArgument = -1001;

// Keys of the attribute dictionaries that the account listing returns.
inline constexpr std::string_view KXKeychainAccountKey = "acct";
inline constexpr std::string_view KXKeychainCreationDateKey = "cdat";
inline constexpr std::string_view KXKeychainEntryLabelKey =
    "labl";  // the same as KXKeychainLabelKey, on purpose
inline constexpr std::string_view KXKeychainDescriptionKey = "desc";
inline constexpr std::string_view KXKeychainLabelKey = "labl";
inline constexpr std::string_view KXKeychainModificationDateKey = "mdat";
inline constexpr std::string_view KXKeychainServiceKey = "svce";

// Passwords in the user's keychain, each a generic-password item of a service and an account. Stateless; any
// thread.
//
// Every operation that can fail takes a place for an error, or null. The error is in KXKeychainErrorDomain;
// its code is the keychain's own status, or KXKeychainErrorMissingArgument when a service, an account or a
// secret that is needed is missing (the keychain is not asked then).
class KXKeychain {
 public:
  using ErrorSlot = std::optional<base::DomainError>*;
  using Text = std::optional<std::string>;
  using Accounts = std::vector<base::PropertyList::Dictionary>;

  KXKeychain() = delete;

  static std::optional<Accounts> allAccounts(ports::KeychainItems& keychain, ErrorSlot error = nullptr);
  // With no service: the items of every service.
  static std::optional<Accounts> accountsForService(ports::KeychainItems& keychain, const Text& service,
                                                    ErrorSlot error = nullptr);

  // The secret as text; nullopt, without an error, for an empty one or one that is not UTF-8.
  static std::optional<base::Secret> passwordForService(ports::KeychainItems& keychain, const Text& service,
                                                        const Text& account, ErrorSlot error = nullptr);
  static std::optional<base::Secret> passwordDataForService(ports::KeychainItems& keychain,
                                                            const Text& service, const Text& account,
                                                            ErrorSlot error = nullptr);

  // False, with errSecItemNotFound, when there is no such item.
  static bool deletePasswordForService(ports::KeychainItems& keychain, const Text& service,
                                       const Text& account, ErrorSlot error = nullptr);

  // Replaces: the old item is deleted, then the new one added. If the adding fails the old secret is gone.
  static bool setPassword(ports::KeychainItems& keychain, const base::Secret* password,
                          const Text& forService, const Text& account, ErrorSlot error = nullptr);
  static bool setPasswordData(ports::KeychainItems& keychain, const base::Secret* data,
                              const Text& forService, const Text& account, ErrorSlot error = nullptr);

 private:
  static ports::KeychainQuery _queryForService(const Text& service, const Text& account);
};
