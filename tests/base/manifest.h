#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/keyed_archive.h"

namespace base {

// What a backup's manifest holds: the record of a volume's scan, inside the record of the operation.
struct ManifestScan {
  std::vector<FileURL> files;
  std::optional<FileURL> path;
  std::int64_t bytes = 0;
  bool ready = false;
  bool ignoresHiddenFiles = false;
  friend bool operator==(const ManifestScan&, const ManifestScan&) = default;
};
struct Manifest {
  std::optional<std::string> format;
  std::optional<std::string> encryption;
  std::optional<ManifestScan> scan;
  friend bool operator==(const Manifest&, const Manifest&) = default;
};

std::vector<std::byte> archived(const Manifest& manifest);
Manifest manifestFrom(const KeyedDecoder& root);

// Two files, one of them a folder with a name beyond ASCII, encrypted.
Manifest sampleManifest();
Manifest manifestOfFiles(int count);

}  // namespace base
