#include "tests/resources/resource_files.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "base/xml_property_list.h"

namespace resources_test {

std::filesystem::path sourceFolder() { return STASHWICK_SOURCE_DIR; }

std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot open " + path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

base::PropertyList::Dictionary readDictionary(const std::filesystem::path& resource) {
  const auto parsed = base::parseXMLPropertyList(readFile(sourceFolder() / "resources" / resource));
  if (!parsed) throw std::runtime_error(resource.string() + ": " + parsed.error().message);
  const auto* dictionary = parsed->as<base::PropertyList::Dictionary>();
  if (dictionary == nullptr) throw std::runtime_error(resource.string() + " holds no dictionary");
  return *dictionary;
}

StringTable readStringTable(const std::string& language) {
  const std::string resource = language + ".lproj/Localizable.strings";
  StringTable table;
  for (const auto& [key, value] : readDictionary(resource)) {
    const auto* text = value.as<std::string>();
    if (text == nullptr) throw std::runtime_error(resource + ": \"" + key + "\" has a value that is no text");
    table.emplace(key, *text);
  }
  return table;
}

}  // namespace resources_test
