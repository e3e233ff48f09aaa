#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ports/keychain.h"

namespace contract {

// What every keychain keeps to. A fixture has
//   ports::KeychainItems& keychain();   which works, unlocked, and has no item of the services named here
template <class Fixture>
class KeychainContract : public testing::Test {
 protected:
  static constexpr const char* kService = "Contract 1";
  static constexpr const char* kOtherService = "Contract 2";

  ports::OSStatus add(const std::string& service, const std::string& account, std::string_view secret) {
    return fixture.keychain().secItemAdd({.service = service, .account = account}, base::Secret(secret));
  }
  ports::KeychainMatches find(ports::KeychainQuery query) {
    return fixture.keychain().secItemCopyMatching(query);
  }
  std::string secretOf(const std::string& service, const std::string& account) {
    const auto found = find({.service = service, .account = account, .returnData = true});
    return found.data ? std::string(found.data->reveal()) : "(none)";
  }
  std::multiset<std::string> accountsOf(const ports::KeychainMatches& matches) {
    std::multiset<std::string> accounts;
    for (const auto& item : matches.attributes) {
      const auto* account = base::find<std::string>(item, "acct");
      accounts.insert(account == nullptr ? "(none)" : *account);
    }
    return accounts;
  }

  Fixture fixture;
};
TYPED_TEST_SUITE_P(KeychainContract);

TYPED_TEST_P(KeychainContract, givesBackTheSecretOfAnItem) {
  EXPECT_EQ(this->add(this->kService, "pat", "open sesame"), ports::errSecSuccess);
  EXPECT_EQ(this->secretOf(this->kService, "pat"), "open sesame");
}

TYPED_TEST_P(KeychainContract, keepsAnySecretByteForByte) {
  const std::string bytes("\0\xFF\n\x80 grüße", 12);
  EXPECT_EQ(this->add(this->kService, "bytes", bytes), ports::errSecSuccess);
  EXPECT_EQ(this->add(this->kService, "empty", ""), ports::errSecSuccess);
  EXPECT_EQ(this->secretOf(this->kService, "bytes"), bytes);
  EXPECT_EQ(this->secretOf(this->kService, "empty"), "");
}

TYPED_TEST_P(KeychainContract, keepsNamesThatAreNotASCII) {
  EXPECT_EQ(this->add(this->kService, "Łukasz Ü.", "x"), ports::errSecSuccess);
  EXPECT_EQ(this->secretOf(this->kService, "Łukasz Ü."), "x");
}

TYPED_TEST_P(KeychainContract, refusesASecondItemOfOneServiceAndAccount) {
  this->add(this->kService, "pat", "first");
  EXPECT_EQ(this->add(this->kService, "pat", "second"), ports::errSecDuplicateItem);
  EXPECT_EQ(this->secretOf(this->kService, "pat"), "first");
}

TYPED_TEST_P(KeychainContract, tellsServicesAndAccountsApart) {
  EXPECT_EQ(this->add(this->kService, "pat", "1"), ports::errSecSuccess);
  EXPECT_EQ(this->add(this->kService, "Pat", "2"), ports::errSecSuccess);
  EXPECT_EQ(this->add(this->kOtherService, "pat", "3"), ports::errSecSuccess);
  EXPECT_EQ(this->secretOf(this->kService, "pat"), "1");
  EXPECT_EQ(this->secretOf(this->kService, "Pat"), "2");
  EXPECT_EQ(this->secretOf(this->kOtherService, "pat"), "3");
}

TYPED_TEST_P(KeychainContract, saysWhenNothingMatches) {
  this->add(this->kService, "pat", "x");
  const auto found = this->find({.service = this->kService, .account = "sam", .returnData = true});
  EXPECT_EQ(found.status, ports::errSecItemNotFound);
  EXPECT_FALSE(found.data.has_value());
}

TYPED_TEST_P(KeychainContract, matchesEveryAccountWhenNoneIsGiven) {
  this->add(this->kService, "pat", "1");
  this->add(this->kService, "sam", "2");
  this->add(this->kOtherService, "kim", "3");
  const auto found = this->find({.service = this->kService, .returnAttributes = true, .matchAll = true});
  EXPECT_EQ(found.status, ports::errSecSuccess);
  EXPECT_EQ(this->accountsOf(found), (std::multiset<std::string>{"pat", "sam"}));
}

TYPED_TEST_P(KeychainContract, matchesEveryServiceWhenNoneIsGiven) {
  this->add(this->kService, "contract pat", "1");
  this->add(this->kOtherService, "contract pat", "2");
  const auto found = this->find({.account = "contract pat", .returnAttributes = true, .matchAll = true});
  EXPECT_EQ(found.attributes.size(), 2U);
  EXPECT_GE(this->find({.returnAttributes = true, .matchAll = true}).attributes.size(), 2U);
}

TYPED_TEST_P(KeychainContract, findsOneItemUnlessAllAreAskedFor) {
  this->add(this->kService, "pat", "1");
  this->add(this->kService, "sam", "2");
  EXPECT_EQ(this->find({.service = this->kService, .returnAttributes = true}).attributes.size(), 1U);
}

TYPED_TEST_P(KeychainContract, givesOnlyWhatIsAskedFor) {
  this->add(this->kService, "pat", "1");
  const auto attributes = this->find({.service = this->kService, .returnAttributes = true});
  EXPECT_FALSE(attributes.data.has_value());
  const auto data = this->find({.service = this->kService, .returnData = true});
  EXPECT_TRUE(data.attributes.empty());
  const auto status = this->find({.service = this->kService});
  EXPECT_EQ(status.status, ports::errSecSuccess);
  EXPECT_TRUE(status.attributes.empty());
  EXPECT_FALSE(status.data.has_value());
}

TYPED_TEST_P(KeychainContract, describesAnItem) {
  this->add(this->kService, "pat", "1");
  const auto found = this->find({.service = this->kService, .returnAttributes = true});
  ASSERT_EQ(found.attributes.size(), 1U);
  const auto& item = found.attributes[0];
  const auto* service = base::find<std::string>(item, "svce");
  const auto* created = base::find<base::Date>(item, "cdat");
  const auto* modified = base::find<base::Date>(item, "mdat");
  ASSERT_TRUE(service != nullptr && created != nullptr && modified != nullptr);
  EXPECT_EQ(*service, this->kService);
  EXPECT_GT(*created, base::Date::fromUnix(1600000000));
  EXPECT_GE(*modified, *created);
}

TYPED_TEST_P(KeychainContract, deletesEveryMatch) {
  this->add(this->kService, "pat", "1");
  this->add(this->kService, "sam", "2");
  this->add(this->kOtherService, "pat", "3");
  EXPECT_EQ(this->fixture.keychain().secItemDelete({.service = this->kService}), ports::errSecSuccess);
  EXPECT_EQ(this->find({.service = this->kService, .matchAll = true}).status, ports::errSecItemNotFound);
  EXPECT_EQ(this->secretOf(this->kOtherService, "pat"), "3");
}

TYPED_TEST_P(KeychainContract, saysWhenThereIsNothingToDelete) {
  EXPECT_EQ(this->fixture.keychain().secItemDelete({.service = this->kService, .account = "pat"}),
            ports::errSecItemNotFound);
}

TYPED_TEST_P(KeychainContract, takesAnItemAgainAfterItsDeletion) {
  this->add(this->kService, "pat", "old");
  this->fixture.keychain().secItemDelete({.service = this->kService, .account = "pat"});
  EXPECT_EQ(this->add(this->kService, "pat", "new"), ports::errSecSuccess);
  EXPECT_EQ(this->secretOf(this->kService, "pat"), "new");
}

TYPED_TEST_P(KeychainContract, isUsedFromSeveralThreads) {
  ports::OSStatus statuses[4] = {};
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] { statuses[i] = this->add(this->kService, std::to_string(i), "x"); });
    }
  }
  EXPECT_THAT(statuses, testing::Each(ports::errSecSuccess));
  EXPECT_EQ(
      this->accountsOf(this->find({.service = this->kService, .returnAttributes = true, .matchAll = true})),
      (std::multiset<std::string>{"0", "1", "2", "3"}));
}

REGISTER_TYPED_TEST_SUITE_P(KeychainContract, givesBackTheSecretOfAnItem, keepsAnySecretByteForByte,
                            keepsNamesThatAreNotASCII, refusesASecondItemOfOneServiceAndAccount,
                            tellsServicesAndAccountsApart, saysWhenNothingMatches,
                            matchesEveryAccountWhenNoneIsGiven, matchesEveryServiceWhenNoneIsGiven,
                            findsOneItemUnlessAllAreAskedFor, givesOnlyWhatIsAskedFor, describesAnItem,
                            deletesEveryMatch, saysWhenThereIsNothingToDelete,
                            takesAnItemAgainAfterItsDeletion, isUsedFromSeveralThreads);

}  // namespace contract
