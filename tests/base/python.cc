#include "tests/base/python.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace base {
namespace {

constexpr std::string_view kImports =
    "import sys, plistlib\nfrom plistlib import UID\nfrom datetime import datetime\n"
    "from math import inf\n";

std::string shellWord(std::string_view argument) {
  std::string text = "'";
  for (const char c : argument) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return text += "'";
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
  std::string form = (std::filesystem::temp_directory_path() / "stashwick-test-XXXXXX").string();
  if (!mkdtemp(form.data())) throw std::runtime_error("cannot make " + form);
  path_ = form;
}

TemporaryFolder::~TemporaryFolder() { std::filesystem::remove_all(path_); }

std::vector<std::byte> bytesOf(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

std::vector<std::byte> contentsOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + file.string());
  return bytesOf(std::string(std::istreambuf_iterator<char>(in), {}));
}

void writeFile(const std::filesystem::path& file, std::span<const std::byte> bytes) {
  std::ofstream out(file, std::ios::binary);
  for (const std::byte byte : bytes) out.put(static_cast<char>(byte));
  if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
}

std::vector<std::byte> corpus(std::string_view name) {
  return contentsOf(std::filesystem::path(STASHWICK_SOURCE_DIR) / "tests/corpus/plist" / name);
}

std::string outputOf(const std::vector<std::string>& command) {
  std::string line;
  for (const std::string& word : command) line += shellWord(word) + " ";
  std::FILE* output = popen((line + "2>&1").c_str(), "r");
  if (!output) throw std::runtime_error("cannot run " + line);
  std::string text;
  for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) text += static_cast<char>(c);
  const int status = pclose(output);
  if (status != 0) text += "(exit status " + std::to_string(WEXITSTATUS(status)) + ")";
  return text;
}

std::string plistlibComparison(std::span<const std::byte> bytes, std::string_view expression) {
  const TemporaryFolder folder;
  writeFile(folder / "value.plist", bytes);
  const std::string program = std::string(kImports) +
                              "value = plistlib.load(open(sys.argv[1], 'rb'))\n"
                              "expected = " +
                              std::string(expression) +
                              "\nsame = value == expected and type(value) == type(expected)\n"
                              "sys.stdout.write('equal' if same else repr(value))\n";
  return outputOf({"python3", "-c", program, (folder / "value.plist").string()});
}

std::vector<std::byte> plistlibBytes(std::string_view expression, std::string_view form) {
  const TemporaryFolder folder;
  const std::string program = std::string(kImports) + "plistlib.dump(" + std::string(expression) +
                              ", open(sys.argv[1], 'wb'), fmt=plistlib." + std::string(form) +
                              ", sort_keys=False)\n";
  const std::string output = outputOf({"python3", "-c", program, (folder / "value.plist").string()});
  if (!output.empty()) throw std::runtime_error(output);
  return contentsOf(folder / "value.plist");
}

}  // namespace base
