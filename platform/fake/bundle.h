#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "platform/fake/files.h"
#include "ports/bundle.h"

namespace platform::fake {

// An application whose resources a test adds; at first there are none.
class Bundle : public ports::Bundle {
 public:
  explicit Bundle(Files& files) : files_(files) {}

  std::optional<std::string> pathForResource(std::string_view name, std::string_view type) override;
  std::string localizedString(std::string_view key) override;

  void addResource(std::string_view name, std::string_view type, std::string_view contents);
  void setLocalizedString(std::string key, std::string text);

 private:
  Files& files_;
  base::Mutex mutex_;
  std::map<std::string, std::string, std::less<>> strings_ GUARDED_BY(mutex_);
};

}  // namespace platform::fake
