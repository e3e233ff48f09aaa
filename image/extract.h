#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "image/udif/writer.h"
#include "image/volume.h"

namespace image {

struct ExtractRequest {
  // Made when it is missing; then it gets the attributes of the volume's root, otherwise it keeps its own.
  std::string folder;
  // What to extract, with everything below and the folders on the way; empty: everything.
  std::vector<std::string> paths{};
  // Files, links and the like replace what has their names; each is written beside it first. Folders are
  // never replaced, only filled, and nothing but a folder is ever taken for one.
  bool overwrites = false;
  // 0: one for each processor.
  unsigned workers = 0;
  // Set at any time from any thread or signal handler; the call then ends soon with an Error.
  const std::atomic<bool>* cancelled = nullptr;
  udif::Progress* progress = nullptr;
};

struct ExtractReport {
  std::uint64_t files = 0;
  std::uint64_t folders = 0;
  std::uint64_t bytes = 0;
  // What the target could not take, with the reason. That it cannot give owners to who is not root is not
  // told.
  std::vector<std::string> leftOut{};
  // What the image does not give, with the reason: first the items, of which nothing was written, then the
  // extended attributes of others. Everything else was extracted.
  std::vector<std::string> unreadable{};
};

// Writes what is in a volume into a folder, without mounting it: with contents, dates to the nanosecond,
// permissions, extended attributes, access control lists, hard links, and, for root, owners. Nothing is
// written outside the folder, whatever the volume holds: symbolic links in it are not followed. Blocks of
// zeros become holes.
//
// What exists already is found out before anything is written. An item that cannot be read, as in a damaged
// image, does not keep the others back. A later Error leaves what was written so far, but no file that is not
// whole. Errors begin with the path that they are about, if there is one.
base::Result<ExtractReport> extract(const Volume& volume, const ExtractRequest& request);

}  // namespace image
