#pragma once

#include <filesystem>

namespace bench {

// Folders of files that differ in what is hard about them. The same bytes on every machine. `share` of 1 is
// the full size; less makes fewer files.

// 3,000 files of 20 to 314 kB, half of them text, half of them noise: 500 MB.
void makeMixedTree(const std::filesystem::path& folder, double share);
// 60,000 texts of 0.5 to 10 kB, 200 in each folder: 330 MB, of which file systems make 440.
void makeSmallTree(const std::filesystem::path& folder, double share);
// 20 files of 33.5 MB, noise but for runs of zeros and holes: 670 MB.
void makeLargeTree(const std::filesystem::path& folder, double share);
// 1,000,000 empty files in 10,000 folders.
void makeEmptyTree(const std::filesystem::path& folder, double share);

}  // namespace bench
