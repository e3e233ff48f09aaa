#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "base/property_list.h"

namespace resources_test {

// A text table, key to text.
using StringTable = std::map<std::string, std::string, std::less<>>;

// The root of the source tree.
std::filesystem::path sourceFolder();

std::string readFile(const std::filesystem::path& path);

// The dictionary of a resource's property list, its path relative to resources/. Throws std::runtime_error,
// which fails the test, when there is none.
base::PropertyList::Dictionary readDictionary(const std::filesystem::path& resource);

// The table of resources/<language>.lproj. Throws like readDictionary, also for a value that is no text.
StringTable readStringTable(const std::string& language);

}  // namespace resources_test
