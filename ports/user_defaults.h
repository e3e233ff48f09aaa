#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/property_list.h"

namespace ports {

// The agent's settings: what the user set, over what was registered. Any thread.
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  // Seeds values for keys that the user has not set; no dictionary seeds nothing. Not stored.
  virtual void registerDefaults(const std::optional<base::PropertyList::Dictionary>& defaults) = 0;

  // True for a true boolean, a number other than 0, and the texts "YES", "true" and the like; else false.
  virtual bool boolForKey(std::string_view key) = 0;
  virtual void setBool(bool value, std::string_view key) = 0;
  // nullopt when the key is not set, or is no text or number.
  virtual std::optional<std::string> stringForKey(std::string_view key) = 0;
  // nullopt: the key is no longer set.
  virtual void setString(const std::optional<std::string>& value, std::string_view key) = 0;
};

}  // namespace ports
