#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdlib.h>
#include <string>
#include <string_view>

// A folder of a test's own, removed with whatever is in it, however deep.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string name = parent / "stashwick-posix-XXXXXX";
    path_ = std::filesystem::canonical(::mkdtemp(name.data()));
  }
  ~TemporaryFolder() {
    if (std::system(("rm -rf '" + path_ + "'").c_str()) != 0) std::perror(path_.c_str());
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view below) const { return path_ + "/" + std::string(below); }

  // Writes a file, with the folders above it, and returns its path.
  std::string write(std::string_view below, std::string_view contents) const {
    const std::filesystem::path file = *this / below;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << contents;
    return file;
  }
  std::string read(std::string_view below) const {
    std::ifstream file(*this / below, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string path_;
};
