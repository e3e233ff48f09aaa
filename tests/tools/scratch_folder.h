#pragma once

#include <filesystem>
#include <string>
#include <string_view>

// A folder of its own for one test, gone with everything in it when the test ends.
class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ / name; }

  // Writes a file below, with the folders on the way to it.
  std::filesystem::path write(std::string_view name, std::string_view bytes) const;

 private:
  std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path);

struct ProgramResult {
  int status = 0;
  // Both output streams.
  std::string output;
};
// Runs a line of shell.
ProgramResult runShell(const std::string& line);

// 'text', safe in a line of shell.
std::string shellWord(std::string_view text);
