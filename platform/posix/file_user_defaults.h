#pragma once

#include <optional>
#include <string>

#include "base/mutex.h"
#include "platform/posix/file_stamp.h"
#include "platform/posix/xdg_folders.h"
#include "ports/system_log.h"
#include "ports/user_defaults.h"

namespace platform::posix {

// Settings in an XML property list, read again whenever the file has changed. A file that is no dictionary is
// said in the log, sets nothing, and is kept beside as NAME.damaged when the first setting is written.
class FileUserDefaults : public ports::UserDefaults {
 public:
  // The log outlives this. The file's folder is made when a setting is written.
  explicit FileUserDefaults(ports::SystemLog& log,
                            std::string file = configHome() + "/stashwick/settings.plist")
      : log_(log), file_(std::move(file)) {}

  void registerDefaults(const std::optional<base::PropertyList::Dictionary>& defaults) override;
  bool boolForKey(std::string_view key) override;
  void setBool(bool value, std::string_view key) override;
  std::optional<std::string> stringForKey(std::string_view key) override;
  void setString(const std::optional<std::string>& value, std::string_view key) override;

 private:
  void readIfChanged() REQUIRES(mutex_);
  void write() REQUIRES(mutex_);
  const base::PropertyList* valueForKey(std::string_view key) REQUIRES(mutex_);

  ports::SystemLog& log_;
  const std::string file_;
  base::Mutex mutex_;
  FileStamp stamp_ GUARDED_BY(mutex_);
  base::PropertyList::Dictionary settings_ GUARDED_BY(mutex_);
  base::PropertyList::Dictionary registered_ GUARDED_BY(mutex_);
};

}  // namespace platform::posix
