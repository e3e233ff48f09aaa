#include "tests/tools/scratch_folder.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sys/wait.h>

ScratchFolder::ScratchFolder() {
  std::string name = std::filesystem::temp_directory_path() / "image-test-XXXXXX";
  path_ = ::mkdtemp(name.data());
}

ScratchFolder::~ScratchFolder() { std::filesystem::remove_all(path_); }

std::filesystem::path ScratchFolder::write(std::string_view name, std::string_view bytes) const {
  const auto path = path_ / name;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

ProgramResult runShell(const std::string& line) {
  FILE* const pipe = ::popen(("( " + line + " ) 2>&1").c_str(), "r");
  ProgramResult result;
  std::array<char, 65536> piece;
  while (const std::size_t got = std::fread(piece.data(), 1, piece.size(), pipe))
    result.output.append(piece.data(), got);
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

std::string shellWord(std::string_view text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + "'";
}
