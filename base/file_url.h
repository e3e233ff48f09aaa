#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace base {

// The location of a file or folder as a file URL. Holds the logical path ("/Volumes/STICK/a b") without a
// trailing slash, and whether the URL is marked as a folder's, which its text shows by a trailing slash.
struct FileURL {
  std::string path;
  bool isDirectory = false;

  // "file:///Volumes/STICK/a%20b": every byte but the unreserved ones and '/' percent-encoded.
  std::string absoluteString() const;
  // nullopt for a text that is no file URL of this machine ("file:///..." or "file://localhost/...").
  static std::optional<FileURL> fromAbsoluteString(std::string_view text);

  std::string_view lastPathComponent() const;

  friend bool operator==(const FileURL&, const FileURL&) = default;
};

}  // namespace base
