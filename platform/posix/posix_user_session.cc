#include "platform/posix/posix_user_session.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <unistd.h>

namespace platform::posix {
namespace {

struct Process {
  std::string name{};
  bool hasEnded = false;
};

// From "300 (name) S 1 ...", where the name may hold anything and what follows has no brackets (proc(5)).
// A process that has ended keeps its name until its parent has asked how.
Process readProcess(const std::filesystem::path& stat) {
  std::ifstream file(stat, std::ios::binary);
  std::string text;
  // Fails, where an iterator over the bytes would throw, when the process ends meanwhile.
  std::getline(file, text, '\0');
  const auto begin = text.find('(');
  const auto end = text.rfind(") ");
  if (begin == text.npos || end == text.npos || end <= begin || end + 2 >= text.size()) return {};
  const char state = text[end + 2];
  return {text.substr(begin + 1, end - begin - 1), state == 'Z' || state == 'X'};
}

}  // namespace

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
    const auto number = item->path().filename().string();
    if (!std::ranges::all_of(number, [](unsigned char c) { return std::isdigit(c) != 0; })) continue;
    const auto process = readProcess(item->path() / "stat");
    if (!process.hasEnded) names.push_back(process.name.empty() ? std::nullopt : std::optional(process.name));
  }
  return names;
}

}  // namespace platform::posix
