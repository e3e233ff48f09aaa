#include <cstdlib>

#include "platform/linux/secret_service_keychain.h"
#include "tests/contract/keychain_contract.h"

namespace contract {
namespace {

class SecretService {
 public:
  SecretService() {
    for (const char* service : {"Contract 1", "Contract 2"}) keychain_.secItemDelete({.service = service});
  }
  ports::KeychainItems& keychain() { return keychain_; }

 private:
  // Long, as the machine may be busy.
  platform::freedesktop::SecretServiceKeychain keychain_{std::chrono::seconds(60)};
};
INSTANTIATE_TYPED_TEST_SUITE_P(SecretService, KeychainContract, SecretService);

}  // namespace
}  // namespace contract

namespace platform::freedesktop {
namespace {

using namespace std::chrono_literals;

const ports::KeychainQuery kItem{.service = "Contract 1", .account = "pat", .returnData = true};

TEST(UnlockedKeyring, keepsAnItemForTheNextProgram) {
  SecretServiceKeychain().secItemDelete({.service = "Contract 1"});
  EXPECT_EQ(SecretServiceKeychain().secItemAdd(kItem, base::Secret("open sesame")), ports::errSecSuccess);
  const auto found = SecretServiceKeychain().secItemCopyMatching(kItem);
  ASSERT_TRUE(found.data.has_value());
  EXPECT_EQ(found.data->reveal(), "open sesame");
}

// While it lives, the keyring answers nobody.
class StoppedKeyring {
 public:
  StoppedKeyring() { send("STOP"); }
  ~StoppedKeyring() { send("CONT"); }
  StoppedKeyring(const StoppedKeyring&) = delete;
  StoppedKeyring& operator=(const StoppedKeyring&) = delete;

 private:
  static void send(const std::string& signal) {
    const std::string process =
        "gdbus call --session -d org.freedesktop.DBus -o /org/freedesktop/DBus "
        "-m org.freedesktop.DBus.GetConnectionUnixProcessID org.freedesktop.secrets | "
        "sed 's/.*uint32 //; s/[^0-9]//g'";
    EXPECT_EQ(std::system(("kill -" + signal + " $(" + process + ")").c_str()), 0);
  }
};

TEST(UnlockedKeyring, isNotAvailableWhenItDoesNotAnswerInTime) {
  const StoppedKeyring stopped;
  SecretServiceKeychain keychain(10ms);
  EXPECT_EQ(keychain.secItemCopyMatching(kItem).status, ports::errSecNotAvailable);
  EXPECT_EQ(keychain.secItemAdd(kItem, base::Secret("x")), ports::errSecNotAvailable);
  EXPECT_EQ(keychain.secItemDelete(kItem), ports::errSecNotAvailable);
}

TEST(LockedKeyring, tellsALockedItemFromAnAbsentOne) {
  SecretServiceKeychain keychain;
  ASSERT_EQ(keychain.secItemAdd(kItem, base::Secret("open sesame")), ports::errSecSuccess);
  ASSERT_EQ(std::system("gdbus call --session -d org.freedesktop.secrets -o /org/freedesktop/secrets "
                        "-m org.freedesktop.Secret.Service.Lock "
                        "\"['/org/freedesktop/secrets/collection/login']\" >/dev/null"),
            0);
  EXPECT_EQ(keychain.secItemCopyMatching(kItem).status, ports::errSecInteractionNotAllowed);
  EXPECT_EQ(keychain.secItemDelete(kItem), ports::errSecInteractionNotAllowed);
  const ports::KeychainQuery absent{.service = "Contract 1", .account = "nobody"};
  EXPECT_EQ(keychain.secItemCopyMatching(absent).status, ports::errSecItemNotFound);
  EXPECT_EQ(keychain.secItemAdd(absent, base::Secret("x")), ports::errSecInteractionNotAllowed);
}

TEST(NoKeyring, isNotAvailable) {
  SecretServiceKeychain keychain;
  EXPECT_EQ(keychain.secItemCopyMatching(kItem).status, ports::errSecNotAvailable);
  EXPECT_EQ(keychain.secItemAdd(kItem, base::Secret("x")), ports::errSecNotAvailable);
  EXPECT_EQ(keychain.secItemDelete(kItem), ports::errSecNotAvailable);
}

}  // namespace
}  // namespace platform::freedesktop
