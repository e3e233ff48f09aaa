#include "platform/posix/posix_user_session.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <unistd.h>

namespace platform::posix {

std::string fullNameFromComment(std::string_view comment, std::string_view loginName) {
  std::string name;
  for (const char c : comment.substr(0, comment.find(','))) {
    if (c != '&') {
      name.push_back(c);
    } else if (!loginName.empty()) {
      name.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(loginName[0]))));
      name.append(loginName.substr(1));
    }
  }
  const auto begin = name.find_first_not_of(' ');
  if (begin == name.npos) return std::string(loginName);
  return name.substr(begin, name.find_last_not_of(' ') + 1 - begin);
}

std::string PosixUserSession::fullUserName() {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> texts(16384);
  if (::getpwuid_r(::getuid(), &entry, texts.data(), texts.size(), &found) != 0 || !found) {
    return std::to_string(::getuid());
  }
  return fullNameFromComment(found->pw_gecos ? found->pw_gecos : "", found->pw_name);
}

std::vector<std::optional<std::string>> PosixUserSession::runningBundleNames() {
  std::vector<std::optional<std::string>> names;
  std::error_code unreadable;
  for (std::filesystem::directory_iterator item(processes_, unreadable), end; !unreadable && item != end;
       item.increment(unreadable)) {
    const auto name = item->path().filename().string();
    if (!std::ranges::all_of(name, [](unsigned char c) { return std::isdigit(c) != 0; })) continue;
    std::string command;
    if (std::getline(std::ifstream(item->path() / "comm"), command, '\0') && command.ends_with('\n'))
      command.pop_back();
    names.push_back(command.empty() ? std::nullopt : std::optional(command));
  }
  return names;
}

}  // namespace platform::posix
