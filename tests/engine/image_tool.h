#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/fake/world.h"
#include "store/operation.h"

namespace tests::engine {

inline constexpr const char* kImageTool = "/usr/bin/hdiutil";

// What the image tool prints about an image that it made.
inline std::string createdText(const std::string& image) {
  return "<plist version=\"1.0\"><array><string>" + image + "</string></array></plist>\n";
}

// The image that a run of the image tool is to make; empty when it is to make none.
inline std::string imageOf(const platform::fake::RecordedRun& run) {
  const auto image =
      std::ranges::find_if(run.arguments, [](const auto& argument) { return argument.ends_with(".dmg"); });
  return run.hasArgument("create") && image != run.arguments.end() ? *image : std::string();
}

// Makes the image that it is asked for, and prints what such a tool prints; other verbs print nothing.
inline std::string makeImage(platform::fake::World& world, const platform::fake::RecordedRun& run) {
  const std::string image = imageOf(run);
  if (image.empty()) return {};
  world.files.write(image, "an image");
  world.files.setModificationDate(image.substr(0, image.rfind('/')), world.clock.now());
  return createdText(image);
}

// Leaves the password that the engine looks up in the keychain.
inline void storePassword(platform::fake::World& world, std::string_view password) {
  world.keychain.secItemAdd({.service = "Stashwick 3", .account = world.user.fullUserName()},
                            base::Secret(password));
}

// The manifest of that path, read back; null when there is none.
inline std::shared_ptr<ZQStashwickOperation> manifestAt(platform::fake::World& world,
                                                        const std::string& path) {
  const auto root = world.archives.unarchiveObjectWithFile(path);
  return root ? ZQStashwickOperation::initWithCoder(*root) : nullptr;
}

}  // namespace tests::engine
