#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "image/volume.h"

namespace image {

enum class Change {
  // Only in the folder.
  added,
  // Only in the image.
  removed,
  // In both, but not the same.
  changed
};

struct Difference {
  std::string path;
  Change change = Change::changed;
  // Of what changed: "kind" alone, or some of "contents", "mode", "owner", "date" (of modification, to the
  // nanosecond) and "target".
  std::vector<std::string_view> what{};
};

struct CompareRequest {
  std::string folder;
  // Whether files of the same size count as having the same contents; else they are read.
  bool isQuick = false;
  // 0: one for each processor.
  unsigned workers = 0;
  // Set at any time from any thread or signal handler; the call then ends soon with an Error.
  const std::atomic<bool>* cancelled = nullptr;
};

// How a folder differs from a volume that is a backup of it, by path. What is below a folder that only one of
// them has is told too; the two roots themselves are not compared. Symbolic links are not followed. Something
// that cannot be read is an Error, which begins with its path.
base::Result<std::vector<Difference>> compare(const Volume& volume, const CompareRequest& request);

}  // namespace image
