#pragma once

#include <optional>
#include <string>

#include "base/keyed_archive.h"
#include "base/property_list.h"

namespace ports {

// Property lists and keyed archives in files, by logical path. Any thread. What cannot be read is said in the
// system log, with the file and the reason, unless the file is simply not there.
class Archives {
 public:
  virtual ~Archives() = default;

  // The dictionary in a property-list file, XML or binary; nullopt when there is no file, it cannot be read,
  // or its root is no dictionary.
  virtual std::optional<base::PropertyList::Dictionary> dictionaryWithContentsOfFile(
      const std::string& path) = 0;

  // Writes the dictionary as an XML property list. The file's old contents stay until the new ones are whole,
  // and an old file that was no readable dictionary is kept beside it under another name. False when it could
  // not be written; the folder is not made.
  virtual bool writeDictionary(const base::PropertyList::Dictionary& dictionary, const std::string& path) = 0;

  // Writes a keyed archive of the object. The file is there whole or, when false comes back, not at all.
  virtual bool archiveRootObject(const base::Codable& root, const std::string& path) = 0;

  // The root object of a keyed archive; nullopt when there is no file or it is no keyed archive.
  virtual std::optional<base::KeyedDecoder> unarchiveObjectWithFile(const std::string& path) = 0;
};

}  // namespace ports
