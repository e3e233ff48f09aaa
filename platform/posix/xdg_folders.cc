#include "platform/posix/xdg_folders.h"

#include <cerrno>
#include <cstdlib>
#include <pwd.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace platform::posix {
namespace {

std::string absolutePathIn(const char* variable) {
  const char* value = std::getenv(variable);
  std::string path = value ? value : "";
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path.starts_with('/') ? path : "";
}

std::string homeFolder() {
  if (auto home = absolutePathIn("HOME"); !home.empty()) return home;
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> texts(16384);
  ::getpwuid_r(::getuid(), &entry, texts.data(), texts.size(), &found);
  return found && found->pw_dir[0] == '/' ? found->pw_dir : "/";
}

std::string folder(const char* variable, std::string_view belowHome) {
  auto path = absolutePathIn(variable);
  return path.empty() ? homeFolder().append(belowHome) : path;
}

}  // namespace

std::string dataHome() { return folder("XDG_DATA_HOME", "/.local/share"); }
std::string configHome() { return folder("XDG_CONFIG_HOME", "/.config"); }

std::string unregisteredVolumesFolder() { return dataHome() + "/stashwick/Volumes"; }

bool makeFolders(const std::string& path) {
  for (std::size_t end = path.find('/', 1); end != path.npos; end = path.find('/', end + 1)) {
    ::mkdir(path.substr(0, end).c_str(), 0700);
  }
  ::mkdir(path.c_str(), 0700);
  struct stat item {};
  return ::stat(path.c_str(), &item) == 0 && S_ISDIR(item.st_mode);
}

}  // namespace platform::posix
