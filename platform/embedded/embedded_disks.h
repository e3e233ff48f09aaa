#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "base/operation_queue.h"
#include "base/result.h"
#include "platform/embedded/volume_folder.h"
#include "platform/posix/file_descriptor.h"
#include "platform/posix/folder_disks.h"
#include "platform/posix/main_loop.h"
#include "platform/posix/path_map.h"
#include "ports/archives.h"
#include "ports/dates.h"
#include "ports/disk_arbitration.h"
#include "ports/files.h"
#include "ports/system_log.h"

struct inotify_event;

namespace platform::embedded {

// Disk arbitration with nothing but the kernel: folders are the volumes of external USB sticks, told by
// inotify and by the table of mounts.
//
// Each folder in a volumes folder is such a volume, and so is each single folder that is attached. It arrives
// when it is made, moved in, attached, or mounted over, and departs when it is removed, moved out, or
// unmounted; a bare mount point is no volume until something is mounted there again. A symbolic link is no
// volume, nor is a folder whose name could do harm as one. The second of two volumes of one name is called
// "NAME 1". Each volume is at /Volumes/NAME in the path map.
//
// A property list NAME.plist beside a folder NAME of the volumes folder overrides entries of its description.
// When it comes, goes or changes, the volume departs and arrives with the new description.
//
// A volume that arrives while this watches is stamped with the upper end of its 64-second step, one that was
// there at the start with the lower end, so that dates of that grain still tell the two apart.
class EmbeddedDisks : public posix::FolderDisks {
 public:
  // Called on the main queue: true once every session was told of the arrival, false when the folder was gone
  // before.
  using Arrival = std::function<void(bool arrived)>;

  // All outlive this. Made and destroyed on the main thread.
  struct Surroundings {
    posix::MainLoop& loop;
    posix::PathMap& paths;
    ports::Files& files;
    ports::Archives& archives;
    ports::Dates& dates;
    ports::SystemLog& log;
  };
  explicit EmbeddedDisks(const Surroundings& surroundings);
  ~EmbeddedDisks() override;
  EmbeddedDisks(const EmbeddedDisks&) = delete;
  EmbeddedDisks& operator=(const EmbeddedDisks&) = delete;

  // Takes the folders that are in this folder as present from the start, and watches it from now on. Once.
  base::Result<void> watchVolumesFolder(const std::string& folder);

  // Whether the folder can be attached.
  static base::Result<void> checkFolder(const std::string& folder);

  // Plugs in a single folder, wherever it lies, under its own name; one that is plugged in already is pulled
  // first.
  base::Result<void> attach(const std::string& folder, Arrival arrival = {});

  // A plain folder that was unmounted or ejected is no volume until it is mounted or attached again, or
  // leaves the volumes folder and comes back.
  void mount(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  void unmount(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  void eject(const ports::DiskRef& disk, ports::DiskCompletion done) override;
  void rename(const ports::DiskRef& disk, const std::string& name) override;

  // Whether a volume stands at the logical path whose size is that of its files. Any thread.
  bool isPlainFolder(std::string_view logicalPath) const;

 private:
  class Volume;
  struct Place {
    std::string path;  // real, absolute
    std::string name;
    bool attached = false;
  };
  struct Present;
  using PresentRef = std::shared_ptr<Present>;

  void later(std::function<void()> act);
  void readInotify();
  bool concernsVolumes(const inotify_event& event, std::string_view name) const;

  static base::Result<Place> placeToAttach(const std::string& folder);
  // Folders that are volumes unless they are hidden, and other entries of the volumes folder.
  std::vector<Place> places();
  void rescan();
  std::vector<PresentRef> removeDeparted();
  void takeArrived(const Place& place, const std::vector<PresentRef>& departed);
  void readSideFile(Present& present);
  void rereadSideFile(const PresentRef& present);

  void arrive(const PresentRef& present);
  void measure(const PresentRef& present);
  void announce(const PresentRef& present);
  void depart(const PresentRef& present);
  PresentRef presentAt(const std::string& path) const;
  PresentRef presentOf(const ports::DiskRef& disk) const;
  std::string wantedName(const Present& present) const;
  std::string freeName(const std::string& wanted) const;
  int freeNumber() const;
  base::PropertyList stampNow() const;

  void tellSessions();
  std::vector<ports::DiskRef> announced() const;
  std::optional<ports::Dissenter> mountNow(const ports::DiskRef& disk);
  std::optional<ports::Dissenter> unmountNow(const ports::DiskRef& disk);

  Surroundings around_;
  // Tells closures that are still on their way to the main thread that this is gone.
  std::shared_ptr<EmbeddedDisks*> self_;
  posix::FileDescriptor inotify_;
  posix::FileDescriptor mountTable_;
  posix::FileDescriptor mountTableChanges_;
  posix::MainLoop::Watch inotifyWatch_;
  posix::MainLoop::Watch mountsWatch_;
  std::optional<std::string> volumesFolder_;
  int volumesFolderWatch_ = -1;
  bool atStart_ = false;

  std::vector<Place> attached_;
  std::vector<PresentRef> present_;
  // Folders that are no volumes although they are where volumes are: bare mount points, what was ejected,
  // what has an impossible name.
  std::map<std::string, FolderIdentity> hidden_;

  mutable base::Mutex plainMutex_;
  std::set<std::string, std::less<>> plainFolders_ GUARDED_BY(plainMutex_);  // by volume name

  std::atomic<bool> stopsMeasuring_ = false;
  base::OperationQueue measuring_;
};

}  // namespace platform::embedded
