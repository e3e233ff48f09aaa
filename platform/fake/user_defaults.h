#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "ports/user_defaults.h"

namespace platform::fake {

// Settings in memory.
class UserDefaults : public ports::UserDefaults {
 public:
  void registerDefaults(const std::optional<base::PropertyList::Dictionary>& defaults) override;
  bool boolForKey(std::string_view key) override;
  void setBool(bool value, std::string_view key) override { set(value, key); }
  std::optional<std::string> stringForKey(std::string_view key) override;
  void setString(const std::optional<std::string>& value, std::string_view key) override {
    value ? set(*value, key) : remove(key);
  }

  // What the user, or another program, sets; and takes back.
  void set(base::PropertyList value, std::string_view key);
  void remove(std::string_view key);
  // What the user has set, without what was registered.
  base::PropertyList::Dictionary userValues() const;

 private:
  std::optional<base::PropertyList> value(std::string_view key) const;

  mutable base::Mutex mutex_;
  base::PropertyList::Dictionary registered_ GUARDED_BY(mutex_);
  base::PropertyList::Dictionary user_ GUARDED_BY(mutex_);
};

}  // namespace platform::fake
