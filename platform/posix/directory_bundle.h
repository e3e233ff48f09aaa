#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "base/property_list.h"
#include "ports/bundle.h"
#include "ports/system_log.h"

namespace platform::posix {

// Resources in a folder: NAME.TYPE, and the string tables LANGUAGE.lproj/Localizable.strings, which are
// property lists. The table is that of the first preferred language that has one, by its whole tag, its
// script, or its bare language ("zh-CN" finds zh-Hans, "pt-BR" finds pt); else the English one.
class DirectoryBundle : public ports::Bundle {
 public:
  // The log outlives this.
  DirectoryBundle(std::string folder, std::vector<std::string> preferredLanguages, ports::SystemLog& log)
      : folder_(std::move(folder)), preferredLanguages_(std::move(preferredLanguages)), log_(log) {}

  // ../share/stashwick, seen from the folder of the running program.
  static std::string defaultFolder();

  std::optional<std::string> pathForResource(std::string_view name, std::string_view type) override;
  std::string localizedString(std::string_view key) override;

 private:
  base::PropertyList::Dictionary readTable() const;

  const std::string folder_;
  const std::vector<std::string> preferredLanguages_;
  ports::SystemLog& log_;
  base::Mutex mutex_;
  std::optional<base::PropertyList::Dictionary> table_ GUARDED_BY(mutex_);
};

}  // namespace platform::posix
