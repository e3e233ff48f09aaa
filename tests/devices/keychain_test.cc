#include "devices/keychain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/fake/world.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::UnorderedElementsAre;
using Text = KXKeychain::Text;

// Remembers every call and its query, and hands it on.
class RecordingItems : public ports::KeychainItems {
 public:
  struct Call {
    std::string name;
    ports::KeychainQuery query;
  };

  explicit RecordingItems(ports::KeychainItems& items) : items_(items) {}

  ports::OSStatus secItemAdd(const ports::KeychainQuery& query, const base::Secret& data) override {
    calls.push_back({"add", query});
    return items_.secItemAdd(query, data);
  }
  ports::KeychainMatches secItemCopyMatching(const ports::KeychainQuery& query) override {
    calls.push_back({"copy", query});
    return items_.secItemCopyMatching(query);
  }
  ports::OSStatus secItemDelete(const ports::KeychainQuery& query) override {
    calls.push_back({"delete", query});
    return items_.secItemDelete(query);
  }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& call : calls) names.push_back(call.name);
    return names;
  }

  std::vector<Call> calls;

 private:
  ports::KeychainItems& items_;
};

class Keychain : public ::testing::Test {
 protected:
  static base::DomainError errorOf(std::int32_t code) {
    return {std::string(KXKeychainErrorDomain), code, std::nullopt};
  }
  void store(const std::string& service, const std::string& account, std::string_view secret) {
    const base::Secret password(secret);
    ASSERT_TRUE(KXKeychain::setPassword(items, &password, service, account));
    items.calls.clear();
  }
  static std::optional<std::string> revealed(const std::optional<base::Secret>& secret) {
    return secret ? std::optional(std::string(secret->reveal())) : std::nullopt;
  }
  static std::vector<std::string> accountsIn(const std::optional<KXKeychain::Accounts>& found) {
    std::vector<std::string> accounts;
    for (const auto& item : found.value()) {
      accounts.push_back(*base::find<std::string>(item, KXKeychainServiceKey) + "/" +
                         *base::find<std::string>(item, KXKeychainAccountKey));
    }
    return accounts;
  }

  platform::fake::World world;
  RecordingItems items{world.keychain};
  std::optional<base::DomainError> error;
};

using KeychainKeys = Keychain;
using KeychainListing = Keychain;
using KeychainReading = Keychain;
using KeychainDeleting = Keychain;
using KeychainWriting = Keychain;

constexpr ports::OSStatus kAnyStatus = -34018;

TEST_F(KeychainKeys, areTheFourLetterKeysOfThePlatform) {
  EXPECT_EQ(KXKeychainAccountKey, "acct");
  EXPECT_EQ(KXKeychainCreationDateKey, "cdat");
  EXPECT_EQ(KXKeychainEntryLabelKey, "labl");
  EXPECT_EQ(KXKeychainDescriptionKey, "desc");
  EXPECT_EQ(KXKeychainLabelKey, "labl");
  EXPECT_EQ(KXKeychainModificationDateKey, "mdat");
  EXPECT_EQ(KXKeychainServiceKey, "svce");
}

TEST_F(KeychainKeys, ofTheLabelAreTwoWithOneValue) { EXPECT_EQ(KXKeychainEntryLabelKey, KXKeychainLabelKey); }

TEST_F(KeychainKeys, findTheAttributesOfAListedItem) {
  store("Stashwick 3", "Tess Ter", "secret");
  const auto found = KXKeychain::allAccounts(items);
  ASSERT_TRUE(found);
  ASSERT_EQ(found->size(), 1);
  const auto& item = found->front();
  EXPECT_THAT(base::find<std::string>(item, KXKeychainAccountKey),
              ::testing::Pointee(std::string("Tess Ter")));
  EXPECT_THAT(base::find<std::string>(item, KXKeychainServiceKey),
              ::testing::Pointee(std::string("Stashwick 3")));
  EXPECT_THAT(base::find<base::Date>(item, KXKeychainCreationDateKey),
              ::testing::Pointee(platform::fake::Clock::kStart));
  EXPECT_THAT(base::find<base::Date>(item, KXKeychainModificationDateKey),
              ::testing::Pointee(platform::fake::Clock::kStart));
  EXPECT_NE(base::find<std::string>(item, KXKeychainLabelKey), nullptr);
}

TEST_F(Keychain, missingArgumentHasACodeOfItsOwn) { EXPECT_EQ(KXKeychainErrorMissingArgument, -1001); }

TEST_F(Keychain, domainOfErrorsIsReverseDNS) { EXPECT_EQ(KXKeychainErrorDomain, "com.stashwick.keychain"); }

TEST_F(KeychainListing, ofAllAccountsListsTheItemsOfEveryService) {
  store("Stashwick 3", "Tess Ter", "one");
  store("Mail", "tess@example.com", "two");
  EXPECT_THAT(accountsIn(KXKeychain::allAccounts(items)),
              UnorderedElementsAre("Stashwick 3/Tess Ter", "Mail/tess@example.com"));
  EXPECT_THAT(accountsIn(KXKeychain::allAccounts(items, &error)),
              UnorderedElementsAre("Stashwick 3/Tess Ter", "Mail/tess@example.com"));
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(KeychainListing, ofAServiceListsItsItemsOnly) {
  store("Mail", "a", "one");
  store("Mail", "b", "two");
  store("Stashwick 3", "c", "three");
  EXPECT_THAT(accountsIn(KXKeychain::accountsForService(items, "Mail")),
              UnorderedElementsAre("Mail/a", "Mail/b"));
  EXPECT_THAT(accountsIn(KXKeychain::accountsForService(items, "Mail", &error)),
              UnorderedElementsAre("Mail/a", "Mail/b"));
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(KeychainListing, withoutAServiceIsNoMissingArgument) {
  store("Mail", "a", "one");
  EXPECT_THAT(accountsIn(KXKeychain::accountsForService(items, std::nullopt, &error)), ElementsAre("Mail/a"));
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(KeychainListing, asksForTheAttributesOfAllMatchesAndForNoSecret) {
  KXKeychain::accountsForService(items, "Mail");
  KXKeychain::allAccounts(items);
  ASSERT_THAT(items.names(), ElementsAre("copy", "copy"));
  for (const auto& call : items.calls) {
    EXPECT_TRUE(call.query.returnAttributes);
    EXPECT_TRUE(call.query.matchAll);
    EXPECT_FALSE(call.query.returnData);
    EXPECT_EQ(call.query.account, std::nullopt);
  }
  EXPECT_EQ(items.calls[0].query.service, "Mail");
  EXPECT_EQ(items.calls[1].query.service, std::nullopt);
}

TEST_F(KeychainListing, thatFindsNothingFailsWithTheStatusForIt) {
  EXPECT_FALSE(KXKeychain::allAccounts(items));
  EXPECT_FALSE(KXKeychain::accountsForService(items, "Mail"));
  EXPECT_FALSE(KXKeychain::allAccounts(items, &error));
  EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(ports::errSecItemNotFound));
  EXPECT_FALSE(KXKeychain::accountsForService(items, "Mail", &error));
  EXPECT_EQ(error, errorOf(ports::errSecItemNotFound));
}

TEST_F(KeychainListing, passesTheStatusThrough) {
  store("Mail", "a", "one");
  world.keychain.failWith(kAnyStatus);
  EXPECT_FALSE(KXKeychain::allAccounts(items, &error));
  EXPECT_EQ(error, errorOf(kAnyStatus));
  EXPECT_FALSE(KXKeychain::allAccounts(items));
}

TEST_F(KeychainReading, givesThePasswordOfTheServiceAndTheAccount) {
  store("Stashwick 3", "Tess Ter", "secret");
  store("Stashwick 3", "Other", "other");
  store("Mail", "Tess Ter", "mail");
  EXPECT_EQ(revealed(KXKeychain::passwordForService(items, "Stashwick 3", "Tess Ter")), "secret");
  EXPECT_EQ(revealed(KXKeychain::passwordForService(items, "Stashwick 3", "Tess Ter", &error)), "secret");
  EXPECT_EQ(revealed(KXKeychain::passwordDataForService(items, "Stashwick 3", "Tess Ter")), "secret");
  EXPECT_EQ(revealed(KXKeychain::passwordDataForService(items, "Stashwick 3", "Tess Ter", &error)), "secret");
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(KeychainReading, asksForTheSecretOfOneMatchAndForNoAttributes) {
  KXKeychain::passwordForService(items, "Stashwick 3", "Tess Ter");
  KXKeychain::passwordDataForService(items, "Stashwick 3", "Tess Ter");
  ASSERT_THAT(items.names(), ElementsAre("copy", "copy"));
  for (const auto& call : items.calls) {
    EXPECT_EQ(call.query.service, "Stashwick 3");
    EXPECT_EQ(call.query.account, "Tess Ter");
    EXPECT_TRUE(call.query.returnData);
    EXPECT_FALSE(call.query.returnAttributes);
    EXPECT_FALSE(call.query.matchAll);
  }
}

TEST_F(KeychainReading, ofAnAccountWithoutAnItemGivesNone) {
  store("Stashwick 3", "Tess Ter", "secret");
  EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", "Nobody"));
  EXPECT_FALSE(KXKeychain::passwordDataForService(items, "Stashwick 3", "Nobody"));
}

TEST_F(KeychainReading, ofAnAccountWithoutAnItemTellsTheStatusForIt) {
  EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", "Nobody", &error));
  EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(ports::errSecItemNotFound));
  EXPECT_FALSE(KXKeychain::passwordDataForService(items, "Stashwick 3", "Nobody", &error));
  EXPECT_EQ(error, errorOf(ports::errSecItemNotFound));
}

TEST_F(KeychainReading, withoutAnAccountIsAMissingArgumentAndAsksNothing) {
  EXPECT_FALSE(KXKeychain::passwordDataForService(items, "Stashwick 3", std::nullopt, &error));
  EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(KXKeychainErrorMissingArgument));
  EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", std::nullopt, &error));
  EXPECT_EQ(error, errorOf(KXKeychainErrorMissingArgument));
  EXPECT_FALSE(KXKeychain::passwordDataForService(items, "Stashwick 3", std::nullopt));
  EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", std::nullopt));
  EXPECT_THAT(items.names(), IsEmpty());
}

TEST_F(KeychainReading, withoutAServiceIsAMissingArgumentAndAsksNothing) {
  EXPECT_FALSE(KXKeychain::passwordDataForService(items, std::nullopt, "Tess Ter", &error));
  EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(KXKeychainErrorMissingArgument));
  EXPECT_FALSE(KXKeychain::passwordForService(items, std::nullopt, "Tess Ter", &error));
  EXPECT_EQ(error, errorOf(KXKeychainErrorMissingArgument));
  EXPECT_THAT(items.names(), IsEmpty());
}

TEST_F(KeychainReading, takesEmptyNamesForNames) {
  EXPECT_FALSE(KXKeychain::passwordDataForService(items, "", "", &error));
  EXPECT_EQ(error, errorOf(ports::errSecItemNotFound));
  EXPECT_THAT(items.names(), ElementsAre("copy"));
}

TEST_F(KeychainReading, ofAnEmptySecretGivesNoPasswordAndNoError) {
  store("Stashwick 3", "Tess Ter", "");
  EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", "Tess Ter", &error));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(revealed(KXKeychain::passwordDataForService(items, "Stashwick 3", "Tess Ter", &error)),
              Optional(std::string()));
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(KeychainReading, ofBytesThatAreNoUTF8GivesNoPasswordAndNoError) {
  store("Stashwick 3", "Tess Ter", "caf\xE9");
  EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", "Tess Ter", &error));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(revealed(KXKeychain::passwordDataForService(items, "Stashwick 3", "Tess Ter")), "caf\xE9");
}

TEST_F(KeychainReading, givesTextBeyondASCIIAsItIs) {
  store("Stashwick 3", "Tess Ter", "pässwörd \xF0\x9F\x94\x91");
  EXPECT_EQ(revealed(KXKeychain::passwordForService(items, "Stashwick 3", "Tess Ter")),
            "pässwörd \xF0\x9F\x94\x91");
}

TEST_F(KeychainReading, passesTheStatusThrough) {
  store("Stashwick 3", "Tess Ter", "secret");
  for (const ports::OSStatus status :
       {ports::errSecInteractionNotAllowed, ports::errSecAuthFailed, kAnyStatus}) {
    world.keychain.failWith(status);
    EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", "Tess Ter", &error));
    EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(status));
    EXPECT_FALSE(KXKeychain::passwordDataForService(items, "Stashwick 3", "Tess Ter", &error));
    EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(status));
    EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", "Tess Ter"));
  }
}

TEST_F(KeychainReading, errorsCarryNoReason) {
  EXPECT_FALSE(KXKeychain::passwordForService(items, "Stashwick 3", "Nobody", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->localizedFailureReason, std::nullopt);
}

TEST_F(KeychainDeleting, removesTheItemOfTheServiceAndTheAccountOnly) {
  store("Stashwick 3", "Tess Ter", "secret");
  store("Stashwick 3", "Other", "other");
  store("Mail", "Tess Ter", "mail");
  EXPECT_TRUE(KXKeychain::deletePasswordForService(items, "Stashwick 3", "Tess Ter", &error));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(world.keychain.secret("Stashwick 3", "Tess Ter"), std::nullopt);
  EXPECT_EQ(world.keychain.items(), 2);
  EXPECT_TRUE(KXKeychain::deletePasswordForService(items, "Mail", "Tess Ter"));
  EXPECT_EQ(world.keychain.items(), 1);
}

TEST_F(KeychainDeleting, ofWhatDoesNotExistFailsWithTheStatusForIt) {
  EXPECT_FALSE(KXKeychain::deletePasswordForService(items, "Stashwick 3", "Nobody", &error));
  EXPECT_EQ(error, errorOf(ports::errSecItemNotFound));
  EXPECT_FALSE(KXKeychain::deletePasswordForService(items, "Stashwick 3", "Nobody"));
}

TEST_F(KeychainDeleting, withoutServiceOrAccountIsAMissingArgumentAndDeletesNothing) {
  store("Stashwick 3", "Tess Ter", "secret");
  EXPECT_FALSE(KXKeychain::deletePasswordForService(items, std::nullopt, "Tess Ter", &error));
  EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(KXKeychainErrorMissingArgument));
  EXPECT_FALSE(KXKeychain::deletePasswordForService(items, "Stashwick 3", std::nullopt, &error));
  EXPECT_EQ(error, errorOf(KXKeychainErrorMissingArgument));
  EXPECT_FALSE(KXKeychain::deletePasswordForService(items, std::nullopt, std::nullopt));
  EXPECT_THAT(items.names(), IsEmpty());
  EXPECT_EQ(world.keychain.items(), 1);
}

TEST_F(KeychainDeleting, passesTheStatusThrough) {
  world.keychain.failWith(kAnyStatus);
  EXPECT_FALSE(KXKeychain::deletePasswordForService(items, "Stashwick 3", "Tess Ter", &error));
  EXPECT_EQ(error, errorOf(kAnyStatus));
}

TEST_F(KeychainWriting, storesAFirstPassword) {
  const base::Secret password("secret");
  EXPECT_TRUE(KXKeychain::setPassword(items, &password, "Stashwick 3", "Tess Ter", &error));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(world.keychain.secret("Stashwick 3", "Tess Ter"), "secret");
}

TEST_F(KeychainWriting, storesBytesAsTheyAre) {
  const base::Secret data(std::string_view("\x00\xFF\x80", 3));
  EXPECT_TRUE(KXKeychain::setPasswordData(items, &data, "Stashwick 3", "Tess Ter"));
  EXPECT_TRUE(KXKeychain::setPasswordData(items, &data, "Stashwick 3", "Other", &error));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(world.keychain.secret("Stashwick 3", "Tess Ter"), std::string("\x00\xFF\x80", 3));
  EXPECT_EQ(world.keychain.secret("Stashwick 3", "Other"), std::string("\x00\xFF\x80", 3));
}

TEST_F(KeychainWriting, twiceLeavesOneItemWithTheSecondPassword) {
  const base::Secret first("first");
  const base::Secret second("second");
  EXPECT_TRUE(KXKeychain::setPassword(items, &first, "Stashwick 3", "Tess Ter"));
  EXPECT_TRUE(KXKeychain::setPassword(items, &second, "Stashwick 3", "Tess Ter"));
  EXPECT_EQ(world.keychain.items(), 1);
  EXPECT_EQ(world.keychain.secret("Stashwick 3", "Tess Ter"), "second");
}

TEST_F(KeychainWriting, deletesAndAddsAndNeverUpdates) {
  const base::Secret password("secret");
  EXPECT_TRUE(KXKeychain::setPassword(items, &password, "Stashwick 3", "Tess Ter"));
  ASSERT_THAT(items.names(), ElementsAre("delete", "add"));
  for (const auto& call : items.calls) {
    EXPECT_EQ(call.query.service, "Stashwick 3");
    EXPECT_EQ(call.query.account, "Tess Ter");
    EXPECT_FALSE(call.query.returnAttributes);
    EXPECT_FALSE(call.query.returnData);
    EXPECT_FALSE(call.query.matchAll);
  }
}

TEST_F(KeychainWriting, thatCannotAddHasLostTheOldSecret) {
  store("Stashwick 3", "Tess Ter", "old");
  world.keychain.failNextAdd(kAnyStatus);
  const base::Secret password("new");
  EXPECT_FALSE(KXKeychain::setPassword(items, &password, "Stashwick 3", "Tess Ter", &error));
  EXPECT_EQ(error, errorOf(kAnyStatus));
  EXPECT_EQ(world.keychain.items(), 0);
}

TEST_F(KeychainWriting, tellsTheStatusOfTheAdditionAndNotOfTheDeletion) {
  world.keychain.failNextAdd(ports::errSecDuplicateItem);
  const base::Secret password("secret");
  EXPECT_FALSE(KXKeychain::setPasswordData(items, &password, "Stashwick 3", "Tess Ter", &error));
  EXPECT_EQ(error, errorOf(ports::errSecDuplicateItem));
}

TEST_F(KeychainWriting, thatFailsIsFalseWithoutAPlaceForTheError) {
  world.keychain.failWith(kAnyStatus);
  const base::Secret password("secret");
  EXPECT_FALSE(KXKeychain::setPassword(items, &password, "Stashwick 3", "Tess Ter"));
  EXPECT_FALSE(KXKeychain::setPasswordData(items, &password, "Stashwick 3", "Tess Ter"));
}

TEST_F(KeychainWriting, withoutSecretServiceOrAccountIsAMissingArgumentAndKeepsTheOldSecret) {
  store("Stashwick 3", "Tess Ter", "old");
  const base::Secret password("new");
  const auto fails = [&](const base::Secret* secret, const Text& service, const Text& account) {
    EXPECT_FALSE(KXKeychain::setPassword(items, secret, service, account, &error));
    EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(KXKeychainErrorMissingArgument));
    EXPECT_FALSE(KXKeychain::setPasswordData(items, secret, service, account, &error));
    EXPECT_EQ(std::exchange(error, std::nullopt), errorOf(KXKeychainErrorMissingArgument));
    EXPECT_FALSE(KXKeychain::setPassword(items, secret, service, account));
  };
  fails(nullptr, "Stashwick 3", "Tess Ter");
  fails(&password, std::nullopt, "Tess Ter");
  fails(&password, "Stashwick 3", std::nullopt);
  EXPECT_THAT(items.names(), IsEmpty());
  EXPECT_EQ(world.keychain.secret("Stashwick 3", "Tess Ter"), "old");
}

}  // namespace
