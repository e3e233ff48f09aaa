#pragma once

#include <chrono>

#include "base/mutex.h"
#include "ports/keychain.h"

namespace platform::freedesktop {

// The keychain items of a user whose desktop has a Secret Service (gnome-keyring, KeePassXC and others). An
// item is stored in the default collection under the schema "com.stashwick.Keychain" with the attributes
// "service" and "account"; its label is its service. Nobody is asked anything: where the store is locked, a
// call ends with errSecInteractionNotAllowed, and where there is none, or it does not answer within the
// patience, with errSecNotAvailable. Secrets travel encrypted over the bus.
class SecretServiceKeychain : public ports::KeychainItems {
 public:
  explicit SecretServiceKeychain(std::chrono::milliseconds patience = std::chrono::seconds(3))
      : patience_(patience) {}

  ports::OSStatus secItemAdd(const ports::KeychainQuery& query, const base::Secret& data) override;
  ports::KeychainMatches secItemCopyMatching(const ports::KeychainQuery& query) override;
  ports::OSStatus secItemDelete(const ports::KeychainQuery& query) override;

 private:
  const std::chrono::milliseconds patience_;
  // Held from looking for an item until it is added: the service itself would replace an equal one.
  base::Mutex adding_;
};

}  // namespace platform::freedesktop
