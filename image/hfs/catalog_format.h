#pragma once

#include <cstdint>

// What stands in the records of a catalog file, for who writes, reads and checks them (TN1150).
namespace image::hfs {

// The types of records.
inline constexpr std::uint16_t kFolderRecord = 1;
inline constexpr std::uint16_t kFileRecord = 2;
inline constexpr std::uint16_t kFolderThread = 3;
inline constexpr std::uint16_t kFileThread = 4;

// Flags of folders and files.
inline constexpr std::uint16_t kHasThread = 0x0002;
inline constexpr std::uint16_t kHasAttributes = 0x0004;
inline constexpr std::uint16_t kHasFolderCount = 0x0010;
inline constexpr std::uint16_t kHasLinkChain = 0x0020;

inline constexpr std::uint32_t kRootParentID = 1;

}  // namespace image::hfs
