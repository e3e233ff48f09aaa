#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "base/result.h"

namespace image::os {

struct ReadAttribute {
  std::string name;
  std::vector<std::byte> value;
};

// Reads extended attributes, access control lists among them. One thread at a time.
class AttributeReader {
 public:
  // All attributes of an item in an open folder, without following a symbolic link. None where the file
  // system has no such thing; areSupported() then says so.
  base::Result<std::vector<ReadAttribute>> of(int folder, const char* name);
  bool areSupported() const { return supported_; }

 private:
  base::Result<bool> readValue(const std::string& path, ReadAttribute& attribute);

  bool supported_ = true;
  std::vector<char> names_ = std::vector<char>(1024);
};

}  // namespace image::os
