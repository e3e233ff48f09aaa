#pragma once

#include <string>
#include <vector>

#include "base/result.h"
#include "image/os/file_descriptor.h"

namespace image::os {

// A file of that many bytes in memory, all holes so far, that ends with its descriptor.
base::Result<FileDescriptor> memoryFile(std::uint64_t bytes);

// A path by which a program that is run with the file can open it.
std::string pathOf(const FileDescriptor& file);

// Runs a system program, found in the system's folders and not by the caller's PATH, with `input` on its
// standard input and the file open. Fails with its words unless it ends with status 0.
base::Result<void> runProgram(const std::vector<std::string>& words, const std::string& input,
                              const FileDescriptor& file);

}  // namespace image::os
