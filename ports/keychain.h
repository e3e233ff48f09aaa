#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/property_list.h"
#include "base/secret.h"

namespace ports {

using OSStatus = std::int32_t;
inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecNotAvailable = -25291;
inline constexpr OSStatus errSecAuthFailed = -25293;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecItemNotFound = -25300;
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;

// Which generic-password items are meant. An absent attribute matches every value.
struct KeychainQuery {
  std::optional<std::string> service = {};
  std::optional<std::string> account = {};
  bool returnAttributes = false;
  bool returnData = false;
  bool matchAll = false;  // else at most one item
};

struct KeychainMatches {
  OSStatus status = errSecSuccess;
  // One dictionary an item under the keys "acct", "svce", "labl", "desc" (strings), "cdat", "mdat" (dates),
  // when attributes were asked for.
  std::vector<base::PropertyList::Dictionary> attributes;
  // The first item's secret, when data was asked for.
  std::optional<base::Secret> data;
};

// The user's store of generic-password items, identified by service and account. Any thread; every call ends
// within a few seconds, with errSecNotAvailable or errSecInteractionNotAllowed when the store does not
// answer.
class KeychainItems {
 public:
  virtual ~KeychainItems() = default;

  // errSecDuplicateItem when an item of that service and account exists. Both are given.
  virtual OSStatus secItemAdd(const KeychainQuery& query, const base::Secret& data) = 0;
  // errSecItemNotFound when nothing matches.
  virtual KeychainMatches secItemCopyMatching(const KeychainQuery& query) = 0;
  // Deletes every match; errSecItemNotFound when there is none.
  virtual OSStatus secItemDelete(const KeychainQuery& query) = 0;
};

}  // namespace ports
