#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ports {

// The application's own resources. Any thread.
class Bundle {
 public:
  virtual ~Bundle() = default;

  // The logical path of the resource NAME.TYPE, or of NAME where the type is empty; nullopt when there is
  // none.
  virtual std::optional<std::string> pathForResource(std::string_view name, std::string_view type) = 0;

  // The text of the default string table in the user's language; the key itself when there is none.
  virtual std::string localizedString(std::string_view key) = 0;
};

}  // namespace ports
