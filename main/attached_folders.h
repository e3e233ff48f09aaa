#pragma once

#include <memory>
#include <optional>
#include <string>

#include "cli/surroundings.h"
#include "devices/removable_device_center.h"
#include "platform/embedded/embedded_disks.h"
#include "platform/posix/main_loop.h"
#include "platform/posix/path_map.h"
#include "ports/host.h"

// The volumes of a machine without a disk daemon: what is mounted where desktops mount sticks, or the folders
// in a folder that stands for that; and single folders. Nothing is looked at before it is asked for.
class AttachedFolders : public cli::Volumes {
 public:
  // All outlive this; the host's disks are `disks`, which keep their volumes in `diskPaths`. In `paths` a
  // volume stays where it was when it was attached: a restore may remove its folder and make it anew.
  AttachedFolders(const ports::Host& host, platform::posix::MainLoop& loop, platform::posix::PathMap& paths,
                  const platform::posix::PathMap& diskPaths, platform::embedded::EmbeddedDisks& disks)
      : host_(host), loop_(loop), paths_(paths), diskPaths_(diskPaths), disks_(disks) {}

  base::Result<void> lookIn(const std::string& folder) override;
  std::vector<cli::Device> attached() override;
  base::Result<cli::Device> attach(const std::string& folder) override;
  std::string place(const ZQRemovableDevice& volume) override;
  bool holds(const ZQRemovableDevice& volume, const std::string& path) override;
  void standIn(const std::string& name, const ZQRemovableDevice& volume) override;

 private:
  std::vector<std::string> foldersToAttach() const;
  ZQRemovableDeviceCenter& center();
  std::vector<cli::Device> present();

  ports::Host host_;
  platform::posix::MainLoop& loop_;
  platform::posix::PathMap& paths_;
  const platform::posix::PathMap& diskPaths_;
  platform::embedded::EmbeddedDisks& disks_;
  std::optional<std::string> volumesFolder_;
  bool areAttached_ = false;
  std::unique_ptr<ZQRemovableDeviceCenter> center_;
};
