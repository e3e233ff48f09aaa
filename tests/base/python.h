#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace base {

// A folder of its own under the system's temporary folder, gone with everything in it at the end.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

std::vector<std::byte> bytesOf(std::string_view text);
std::vector<std::byte> contentsOf(const std::filesystem::path& file);
void writeFile(const std::filesystem::path& file, std::span<const std::byte> bytes);

// A file of tests/corpus/plist.
std::vector<std::byte> corpus(std::string_view name);

// What a program prints, standard error included; its exit status follows when it is not 0.
std::string outputOf(const std::vector<std::string>& command);

// "equal" when plistlib reads the bytes as the value of this Python expression (which may name UID, datetime,
// inf and value, what it read), otherwise what it found instead.
std::string plistlibComparison(std::span<const std::byte> bytes, std::string_view expression);

// What plistlib.dumps writes for the value of a Python expression. The form is "FMT_BINARY" or "FMT_XML".
std::vector<std::byte> plistlibBytes(std::string_view expression, std::string_view form);

}  // namespace base
