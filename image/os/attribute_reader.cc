#include "image/os/attribute_reader.h"

#include <algorithm>
#include <cerrno>
#include <sched.h>
#include <string_view>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>

namespace image::os {
namespace {

base::Error lastError() { return {std::generic_category().message(errno)}; }

}  // namespace

AttributeReader::AttributeReader() : hasOwnDirectory_(::unshare(CLONE_FS) == 0) {}

void AttributeReader::enter(int folder) {
  const bool inside = hasOwnDirectory_ && ::fchdir(folder) == 0;
  prefix_ = inside ? "" : "/proc/self/fd/" + std::to_string(folder) + "/";
}

base::Result<std::vector<ReadAttribute>> AttributeReader::of(const char* name) {
  const std::string path = prefix_ + name;
  ssize_t length = 0;
  while ((length = ::llistxattr(path.c_str(), names_.data(), names_.size())) < 0 && errno == ERANGE)
    names_.resize(names_.size() * 2);
  if (length < 0 && (errno == ENOTSUP || errno == EOPNOTSUPP)) {
    supported_ = false;
    return std::vector<ReadAttribute>();
  }
  if (length < 0) return lastError();
  std::vector<ReadAttribute> attributes;
  std::string_view names(names_.data(), static_cast<std::size_t>(length));
  while (!names.empty()) {
    ReadAttribute attribute{.name = std::string(names.substr(0, names.find('\0'))), .value = {}};
    names.remove_prefix(std::min(attribute.name.size() + 1, names.size()));
    const auto found = readValue(path, attribute);
    if (!found) return found.error();
    if (*found) attributes.push_back(std::move(attribute));
  }
  return attributes;
}

// False for an attribute that is gone by now, or that is listed but has no value to be read.
base::Result<bool> AttributeReader::readValue(const std::string& path, ReadAttribute& attribute) {
  attribute.value.resize(256);
  while (true) {
    const ssize_t length =
        ::lgetxattr(path.c_str(), attribute.name.c_str(), attribute.value.data(), attribute.value.size());
    if (length >= 0) {
      attribute.value.resize(static_cast<std::size_t>(length));
      return true;
    }
    if (errno == ENODATA || errno == ENOTSUP) return false;
    if (errno != ERANGE) return lastError();
    attribute.value.resize(attribute.value.size() * 4);
  }
}

}  // namespace image::os
