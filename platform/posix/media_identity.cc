#include "platform/posix/media_identity.h"

#include <fstream>
#include <map>
#include <string_view>
#include <sys/sysmacros.h>
#include <uuid/uuid.h>

namespace platform::posix {
namespace {

// The name space of the UUIDs that are made of what media have.
constexpr UUIDBytes kMediaNamespace = {0x3d, 0xb1, 0xdd, 0x9f, 0x6b, 0x0c, 0x4d, 0x47,
                                       0x9a, 0x5e, 0x0c, 0x4b, 0x17, 0x9e, 0x62, 0xd8};
constexpr std::uint64_t kSectorSize = 512;  // of sizes in sysfs, whatever the disk's is

std::string canonicalText(const uuid_t& uuid) {
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_upper(uuid, text.data());
  return text.data();
}

std::string numbersOf(std::uint64_t device) {
  return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

// The lines "E:KEY=VALUE" of udev's database. All known to udev: at most some hundred.
std::map<std::string, std::string, std::less<>> propertiesOf(const std::string& file) {
  std::map<std::string, std::string, std::less<>> properties;
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    const auto equals = line.find('=');
    if (line.starts_with("E:") && equals != line.npos)
      properties.emplace(line.substr(2, equals - 2), line.substr(equals + 1));
  }
  return properties;
}

}  // namespace

std::string nameUUID(const UUIDBytes& nameSpace, const std::string& name) {
  uuid_t uuid;
  uuid_generate_sha1(uuid, nameSpace.data(), name.data(), name.size());
  return canonicalText(uuid);
}

std::optional<std::string> mediaUUID(const MediaIdentity& identity) {
  uuid_t guid;
  if (identity.partitionTable == "gpt" && uuid_parse(identity.partition.c_str(), guid) == 0 &&
      uuid_is_null(guid) == 0)
    return canonicalText(guid);
  if (identity.partition.empty() && identity.fileSystem.empty() && identity.serial.empty())
    return std::nullopt;
  return nameUUID(kMediaNamespace, identity.fileSystem + "\n" + identity.partition + "\n" + identity.serial +
                                       "\n" + std::to_string(identity.size));
}

MediaIdentity mediaIdentityOf(std::uint64_t deviceNumber, const std::string& sysfs, const std::string& udev) {
  const auto properties = propertiesOf(udev + "/data/b" + numbersOf(deviceNumber));
  const auto property = [&](std::string_view key) {
    const auto found = properties.find(key);
    return found == properties.end() ? std::string() : found->second;
  };
  std::uint64_t sectors = 0;
  std::ifstream(sysfs + "/dev/block/" + numbersOf(deviceNumber) + "/size") >> sectors;
  return {.partitionTable = property("ID_PART_ENTRY_SCHEME"),
          .partition = property("ID_PART_ENTRY_UUID"),
          .fileSystem = property("ID_FS_UUID"),
          .serial = property(property("ID_SCSI") == "1" ? "ID_SCSI_SERIAL" : "ID_SERIAL_SHORT"),
          .size = sectors * kSectorSize};
}

}  // namespace platform::posix
