#pragma once

#include <cstdint>
#include <string>

#include "ports/files.h"

// Sizes as the user reads them, and the sizes of files and folders.
class FileSize {
 public:
  explicit FileSize(ports::Files& files) : files_(files) {}

  // "1022 bytes", "1.0 KB", "1.00 MB", "1.00 GB": units of 1024, with the step to the next unit at 1023 on
  // purpose, no unit above GB, and a full stop in every locale.
  static std::string stringFromFileSize(std::uint64_t bytes);

  // Of the item itself, a symbolic link included; 0 when there is none.
  std::uint64_t sizeOfFile(const std::string& path) const;
  // Of everything below the folder, folder entries and links included; 0 when it cannot be read.
  std::uint64_t sizeOfFolder(const std::string& path) const;

 private:
  ports::Files& files_;
};
