#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/secret.h"
#include "image/crypt/container.h"
#include "image/udif/writer.h"

namespace image {

enum class Format { zlib, bzip2, raw };

struct Encryption {
  crypt::Method method = crypt::Method::aes256;
  base::Secret password;
};

struct CreateRequest {
  // Folder whose contents go into the image.
  std::string source;
  std::string volumeName;
  // The new file; nothing may exist there.
  std::string image;
  Format format = Format::zlib;
  // Of Format::zlib: from 1, which is fast, to 9, which is small.
  int level = codec::ZlibCompressor::kFastest;
  std::optional<Encryption> encryption{};
  // Leaves out what cannot be read and reports it, instead of failing.
  bool skipsUnreadable = false;
  // Whether what is on disk is read back and checked before the image gets its name.
  bool verifies = true;
  // 0: one for each processor.
  unsigned workers = 0;
  // Set at any time from any thread or signal handler; the call then ends soon with an Error.
  const std::atomic<bool>* cancelled = nullptr;
  udif::Progress* progress = nullptr;
  // Told what is being done, in words; may be empty. Called on the calling thread.
  std::function<void(std::string_view)> phase{};
};

struct CreateReport {
  std::uint64_t imageBytes = 0;
  std::uint32_t files = 0;
  std::uint32_t folders = 0;
  // What the image does not have, each with the reason.
  std::vector<std::string> leftOut{};
};

// Makes a disk image of a folder. The image exists whole under its name, or not at all.
base::Result<CreateReport> createImage(const CreateRequest& request);

}  // namespace image
