// Seeds: tests/corpus/plist
#include <cstdlib>

#include "tests/base/manifest.h"

// What can be read as a manifest can be archived, and reads as the same manifest again.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto given = std::as_bytes(std::span(bytes, size));
  const auto open = [](std::vector<std::byte> archive) {
    return base::unarchivedRoot(std::make_shared<base::MemoryRandomAccess>(std::move(archive)));
  };
  const auto root = open({given.begin(), given.end()});
  if (!root) return 0;
  root->className();
  const base::Manifest manifest = base::manifestFrom(*root);
  const auto again = open(base::archived(manifest));
  if (!again || base::manifestFrom(*again) != manifest) std::abort();
  return 0;
}
