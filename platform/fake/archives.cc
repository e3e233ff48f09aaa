#include "platform/fake/archives.h"

#include <filesystem>
#include <memory>
#include <span>
#include <utility>

#include "base/binary_property_list.h"
#include "base/keyed_archive.h"
#include "base/random_access.h"
#include "base/xml_property_list.h"

namespace platform::fake {
namespace {

using Dictionary = base::PropertyList::Dictionary;

std::string_view textOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

base::Result<Dictionary> parsedDictionary(const std::string& contents) {
  auto parsed = base::parsePropertyList(std::as_bytes(std::span(contents)));
  if (!parsed) return parsed.error();
  auto* dictionary = parsed->as<Dictionary>();
  if (dictionary == nullptr) return base::Error{"its root is no dictionary"};
  return std::move(*dictionary);
}

// NAME.unreadable, NAME.unreadable-2 and so on: the first that is free.
std::string freeNameBeside(Files& files, const std::string& path) {
  std::string name = path + ".unreadable";
  for (int i = 2; files.fileExists(name); ++i) name = path + ".unreadable-" + std::to_string(i);
  return name;
}

}  // namespace

std::optional<base::Result<Dictionary>> Archives::dictionaryAt(const std::string& path) const {
  if (!files_.fileExists(path)) return std::nullopt;
  const auto contents = files_.read(path);
  if (!contents) return base::Error{"it is no readable file"};
  return parsedDictionary(*contents);
}

std::optional<Dictionary> Archives::dictionaryWithContentsOfFile(const std::string& path) {
  auto found = dictionaryAt(path);
  if (!found) return std::nullopt;
  if (*found) return std::move(**found);
  log_.log("reading the property list " + path + ": " + found->error().message);
  return std::nullopt;
}

bool Archives::writeDictionary(const Dictionary& dictionary, const std::string& path) {
  const auto old = dictionaryAt(path);
  const bool keepsOld = old && !*old && files_.read(path);
  const auto written = base::writeXMLPropertyList(dictionary);
  return replaceFile(path, written, keepsOld);
}

bool Archives::archiveRootObject(const base::Codable& root, const std::string& path) {
  return replaceFile(path, textOf(base::archivedDataWithRootObject(root)), false);
}

std::optional<base::KeyedDecoder> Archives::unarchiveObjectWithFile(const std::string& path) {
  if (!files_.fileExists(path)) return std::nullopt;
  const auto contents = files_.read(path).value_or(std::string());
  const auto bytes = std::as_bytes(std::span(contents));
  auto root = base::unarchivedRoot(
      std::make_shared<base::MemoryRandomAccess>(std::vector<std::byte>(bytes.begin(), bytes.end())));
  if (root) return std::move(*root);
  log_.log("reading the keyed archive " + path + ": " + root.error().message);
  return std::nullopt;
}

bool Archives::replaceFile(const std::string& path, std::string_view contents, bool keepsOld) {
  const auto real = files_.realPath(path);
  std::error_code error;
  if (!std::filesystem::is_directory(real.parent_path(), error)) return false;
  const auto beside = path + ".new";
  if (!files_.write(beside, contents)) return false;
  if (keepsOld) std::filesystem::rename(real, files_.realPath(freeNameBeside(files_, path)), error);
  if (!error) std::filesystem::rename(files_.realPath(beside), real, error);
  if (error) files_.remove(beside);
  return !error;
}

}  // namespace platform::fake
