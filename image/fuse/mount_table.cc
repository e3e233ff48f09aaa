#include "image/fuse/mount_table.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "image/os/posix_error.h"

namespace image::fuse {
namespace {

constexpr std::string_view kSourcePrefix = "hdiutil:";

// "\040" and the like stand for blanks and what else would break the table's lines.
std::string unescaped(std::string_view field) {
  const auto isOctal = [&](std::size_t i) { return i < field.size() && field[i] >= '0' && field[i] <= '7'; };
  std::string text;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && isOctal(i + 1) && isOctal(i + 2) && isOctal(i + 3)) {
      text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
      i += 3;
    } else {
      text += field[i];
    }
  }
  return text;
}

struct ProcessState {
  bool hasEnded = false;
  std::uint64_t started = 0;
};

// nullopt when there is no such process, or none that this one may look at.
std::optional<ProcessState> stateOf(const std::string& process) {
  constexpr int kFieldsFromStateToStart = 19;
  std::ifstream file("/proc/" + process + "/stat");
  std::string line;
  // Fails, where an iterator over the bytes would throw, when the process ends meanwhile.
  std::getline(file, line, '\0');
  const auto nameEnd = line.rfind(')');
  if (nameEnd == line.npos) return std::nullopt;
  std::istringstream fields(line.substr(nameEnd + 1));
  char letter = 0;
  fields >> letter;
  std::string skipped;
  for (int i = 1; i < kFieldsFromStateToStart; ++i) fields >> skipped;
  ProcessState state{.hasEnded = letter == 'Z' || letter == 'X'};
  fields >> state.started;
  return state;
}

}  // namespace

base::Result<ImageIdentity> ImageIdentity::of(const std::string& path) {
  struct stat file {};
  if (::stat(path.c_str(), &file) != 0) return os::posixError("cannot look at", path, errno);
  return ImageIdentity{file.st_dev, file.st_ino, static_cast<std::uint64_t>(file.st_size),
                       std::int64_t{file.st_mtim.tv_sec} * 1'000'000'000 + file.st_mtim.tv_nsec};
}

Server Server::thisProcess(const ImageIdentity& image) {
  return {::getpid(), stateOf("self").value_or(ProcessState{}).started, image};
}

std::string Server::text() const {
  std::string text(kSourcePrefix);
  text += std::to_string(process) + ":" + std::to_string(started) + ":" + std::to_string(image.device) + ":";
  text += std::to_string(image.inode) + ":" + std::to_string(image.bytes) + ":";
  return text + std::to_string(image.modified);
}

std::optional<Server> Server::parse(std::string_view text) {
  if (!text.starts_with(kSourcePrefix)) return std::nullopt;
  std::array<std::int64_t, 6> numbers{};
  const char* at = text.data() + kSourcePrefix.size();
  const char* const end = text.data() + text.size();
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    if (i > 0 && (at == end || *at++ != ':')) return std::nullopt;
    const auto read = std::from_chars(at, end, numbers[i]);
    if (read.ec != std::errc{}) return std::nullopt;
    at = read.ptr;
  }
  if (at != end || numbers[0] <= 0) return std::nullopt;
  const auto number = [&](std::size_t i) { return static_cast<std::uint64_t>(numbers[i]); };
  return Server{static_cast<pid_t>(numbers[0]), number(1), {number(2), number(3), number(4), numbers[5]}};
}

// Where other processes are hidden the start cannot be read; then the number has to do.
bool Server::isAlive() const {
  if (::kill(process, 0) != 0 && errno == ESRCH) return false;
  const auto state = stateOf(std::to_string(process));
  return !state || (!state->hasEnded && state->started == started);
}

std::optional<Mount> parseMount(std::string_view line) {
  std::istringstream fields{std::string(line)};
  std::vector<std::string> words{std::istream_iterator<std::string>(fields), {}};
  constexpr std::size_t kMountPoint = 4;
  std::size_t dash = kMountPoint + 1;
  while (dash < words.size() && words[dash] != "-") ++dash;
  if (dash + 2 >= words.size()) return std::nullopt;
  Mount mount{unescaped(words[kMountPoint]), unescaped(words[dash + 2]), words[dash + 1], std::nullopt};
  if (mount.fileSystem == "fuse." + std::string(kFileSystemType)) mount.server = Server::parse(mount.source);
  return mount;
}

std::vector<Mount> mountTable() {
  std::vector<Mount> mounts;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);)
    if (auto mount = parseMount(line)) mounts.push_back(std::move(*mount));
  return mounts;
}

std::string absolutePlace(const std::string& path) {
  std::string whole = path;
  while (whole.size() > 1 && whole.ends_with('/')) whole.pop_back();
  std::error_code none;
  const auto full = std::filesystem::absolute(whole, none);
  const auto folder = std::filesystem::canonical(full.parent_path(), none);
  return none ? full.string() : (folder / full.filename()).string();
}

std::optional<Mount> mountAt(std::string_view mountPoint) {
  std::optional<Mount> top;
  for (auto& mount : mountTable())
    if (mount.mountPoint == mountPoint) top = std::move(mount);
  return top;
}

}  // namespace image::fuse
