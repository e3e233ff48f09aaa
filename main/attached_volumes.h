#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/surroundings.h"
#include "devices/removable_device_center.h"
#include "main/running_agent.h"
#include "platform/embedded/embedded_disks.h"
#include "platform/posix/main_loop.h"
#include "platform/posix/path_map.h"
#include "ports/host.h"

// The volumes that the agent would list: as the agent of this session knows them; where none runs, the
// external USB volumes of UDisks2, under the names that an agent gives them at its start; where there is no
// UDisks2, what is mounted where desktops mount sticks. Or the folders in a folder that stands for all that.
// And single folders. Nothing is looked at before it is asked for.
class AttachedVolumes : public cli::Volumes {
 public:
  // All outlive this; the host's disks are `disks`, which keep their volumes in `diskPaths`. In `paths` a
  // volume stays where it was when it was attached: a restore may remove its folder and make it anew.
  AttachedVolumes(const ports::Host& host, platform::posix::MainLoop& loop, platform::posix::PathMap& paths,
                  const platform::posix::PathMap& diskPaths, platform::embedded::EmbeddedDisks& disks)
      : host_(host), loop_(loop), paths_(paths), diskPaths_(diskPaths), disks_(disks), agent_(loop) {}

  base::Result<void> lookIn(const std::string& folder) override;
  std::vector<cli::Device> attached() override;
  base::Result<cli::Device> attach(const std::string& folder) override;
  std::string place(const ZQRemovableDevice& volume) override;
  bool holds(const ZQRemovableDevice& volume, const std::string& path) override;
  void standIn(const std::string& name, const ZQRemovableDevice& volume) override;
  cli::Agent* agentOf(const ZQRemovableDevice& volume) override;

 private:
  using Described = std::vector<RunningAgent::Volume>;

  void look();
  void take(const Described& volumes);
  void attachFolders();
  std::vector<std::string> foldersToAttach() const;
  bool isDescribed(const ZQRemovableDevice& volume) const;
  ZQRemovableDeviceCenter& center();
  std::vector<cli::Device> present();

  ports::Host host_;
  platform::posix::MainLoop& loop_;
  platform::posix::PathMap& paths_;
  const platform::posix::PathMap& diskPaths_;
  platform::embedded::EmbeddedDisks& disks_;
  RunningAgent agent_;
  std::optional<std::string> volumesFolder_;
  bool hasLooked_ = false;
  bool areAgents_ = false;              // what is described below
  std::vector<cli::Device> described_;  // that nobody here watches
  std::unique_ptr<ZQRemovableDeviceCenter> center_;
};
