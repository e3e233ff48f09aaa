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

// Reads extended attributes, access control lists among them. Belongs to the thread that makes it, which gets
// a working directory of its own for it: there is no call that takes a folder and a name, and a short path is
// several times as fast as one through /proc.
class AttributeReader {
 public:
  AttributeReader();

  // The folder that of() looks in, until the next call; open for as long.
  void enter(int folder);
  // All attributes of an item in the folder, without following a symbolic link. None where the file system
  // has no such thing; areSupported() then says so.
  base::Result<std::vector<ReadAttribute>> of(const char* name);
  bool areSupported() const { return supported_; }

 private:
  base::Result<bool> readValue(const std::string& path, ReadAttribute& attribute);

  bool hasOwnDirectory_;
  // In front of each name: nothing, or a way through /proc where there is no working directory of our own.
  std::string prefix_;
  bool supported_ = true;
  std::vector<char> names_ = std::vector<char>(1024);
};

}  // namespace image::os
