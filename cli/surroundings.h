#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/secret.h"
#include "devices/removable_device.h"
#include "ports/host.h"

namespace cli {

using Device = std::shared_ptr<ZQRemovableDevice>;

// The agent that runs in this session. Main thread.
class Agent {
 public:
  virtual ~Agent() = default;
  // The volume that it makes a backup of, else empty.
  virtual base::Result<std::string> currentVolume() = 0;
  // Has it make a backup. Returns once that has begun.
  virtual base::Result<void> begin(const std::string& volume) = 0;
  // Whether what began is over. The main queue wakes up for each change.
  virtual bool isOver() = 0;
  // Why it did not make the last backup that it tried to make; empty when it did, or does not know.
  virtual std::string lastFailure() = 0;
};

// The volumes that are attached while the command runs. Main thread.
class Volumes {
 public:
  virtual ~Volumes() = default;
  // Volumes are looked for in this folder and nowhere else. Once.
  virtual base::Result<void> lookIn(const std::string& folder) = 0;
  virtual std::vector<Device> attached() = 0;
  // Makes a folder, wherever it lies, a volume of its own name.
  virtual base::Result<Device> attach(const std::string& folder) = 0;
  // Where the volume's files are, as the user knows it; empty while it is not mounted.
  virtual std::string place(const ZQRemovableDevice& volume) = 0;
  // Whether what is at the path lies on the volume.
  virtual bool holds(const ZQRemovableDevice& volume, const std::string& path) = 0;
  // From now on /Volumes/NAME is that volume, for this process.
  virtual void standIn(const std::string& name, const ZQRemovableDevice& volume) = 0;
  // The agent, where one runs and lists this volume under this name; else null.
  virtual Agent* agentOf(const ZQRemovableDevice& volume) = 0;
};

// Whoever typed the command. Main thread.
class Terminal {
 public:
  virtual ~Terminal() = default;
  // Whether somebody can be asked.
  virtual bool isAttended() const = 0;
  // The line that is typed; nullopt when input ends, or at an interruption.
  virtual std::optional<std::string> ask(const std::string& question) = 0;
  // The same without showing what is typed.
  virtual std::optional<base::Secret> askPassword(const std::string& question) = 0;
  // The first line of standard input, and of a file.
  virtual base::Result<base::Secret> readPassword() = 0;
  virtual base::Result<base::Secret> readPasswordFile(const std::string& path) = 0;
};

// What else is done to the folders of the store. Any thread.
class StoreFolders {
 public:
  // Keeps other programs off a volume's backups while it lives; ends with the process.
  class Hold {
   public:
    virtual ~Hold() = default;
  };
  virtual ~StoreFolders() = default;
  // Null when another program holds the folder; `holder` then says which, as far as it is known.
  virtual base::Result<std::unique_ptr<Hold>> hold(const std::string& folder, std::string& holder) = 0;
  // Durable. No error when there is no such file.
  virtual base::Result<void> removeFile(const std::string& path) = 0;
};

// The list of what to do when a volume arrives, which the agent keeps.
class AutomaticBackups {
 public:
  virtual ~AutomaticBackups() = default;
  virtual std::int32_t flag(const ZQRemovableDevice& volume) = 0;
  virtual void setFlag(const ZQRemovableDevice& volume, std::int32_t flag) = 0;
};

struct Streams {
  std::ostream& out;
  std::ostream& error;
  bool outIsTerminal = false;
  bool errorIsTerminal = false;
  bool mayColour = false;  // nobody asked for texts without colour
};

// Everything that the command line asks of the program that it is wired in. All outlive it.
struct Surroundings {
  ports::Host host;
  Volumes& volumes;
  Terminal& terminal;
  StoreFolders& folders;
  AutomaticBackups& automatic;
  // The host's files, for walks over volumes: an interruption ends them.
  ports::Files& walkedFiles;
  // Tools for cleaning up, which an interruption does not end.
  ports::ToolRuns& lastTools;
  // Serves the main queue until the condition holds; false when the program is interrupted first, which has
  // ended the running tools then.
  std::function<bool(const std::function<bool()>&)> serveUntil;
  // How far the running tool is, from 0 to 1; nullopt when it does not tell.
  std::function<std::optional<double>()> toolProgress;
  Streams streams;
};

}  // namespace cli
