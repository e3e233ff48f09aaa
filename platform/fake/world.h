#pragma once

#include <functional>
#include <string>

#include "base/notification_center.h"
#include "platform/fake/archives.h"
#include "platform/fake/bundle.h"
#include "platform/fake/changes.h"
#include "platform/fake/clock.h"
#include "platform/fake/dates.h"
#include "platform/fake/desktop.h"
#include "platform/fake/disks.h"
#include "platform/fake/failure.h"
#include "platform/fake/files.h"
#include "platform/fake/keychain.h"
#include "platform/fake/main_queue.h"
#include "platform/fake/system_log.h"
#include "platform/fake/tool_runs.h"
#include "platform/fake/user_defaults.h"
#include "platform/fake/user_session.h"
#include "ports/host.h"

namespace platform::fake {

// A small working world to test the system in: it has its own clock, its own "/", and a main thread, which is
// the one that makes it. Tests act on the parts (plug a stick, script a tool, press a button), let the queue
// run and time pass here, and look at what has become of the parts.
//
//   World world;
//   Agent agent(world.host());
//   world.disks.plugUSB("STICK");
//   world.desktop.answerNextAlert("Later");
//   world.runMainQueue();
class World {
 public:
  World() = default;
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Valid as long as the world.
  ports::Host& host() { return host_; }

  // Runs what is posted, and delayed calls that are due, until nothing is left.
  void runMainQueue() { mainQueue.run(); }
  // Advances the clock and runs delayed calls as they come due, in order of time.
  void letSecondsPass(double seconds) { mainQueue.letSecondsPass(seconds); }
  // Runs the queue until the condition holds. Looks again after every change in the world (something posted,
  // logged, run, shown, claimed), wake() included; too long without the condition is a failure, and false.
  bool runUntil(const std::function<bool()>& condition);
  // Runs the queue while another thread makes a call that blocks, and returns when that call does.
  void runWhile(const std::function<void()>& blockingCall);
  // Lets runUntil() look at its condition again. Any thread.
  void wake() { changes.note(); }
  void closeMainQueue() { mainQueue.close(); }

  // The Application Support folder, as a logical path.
  std::string applicationSupport() { return files.applicationSupportDirectory(); }

  Clock clock;
  Changes changes;
  Failure failure;
  base::NotificationCenter notifications;
  Files files{clock, failure};
  SystemLog log{changes};
  MainQueue mainQueue{clock, changes, failure};
  Disks disks{mainQueue, files, clock, changes, failure};
  Desktop desktop{mainQueue, files, changes, failure};
  ToolRuns tools{changes};
  KeychainItems keychain{clock, failure};
  Archives archives{files, log};
  UserDefaults defaults;
  Bundle bundle{files};
  Dates dates{clock};
  UserSession user;

 private:
  ports::Host host_{disks,    keychain, desktop, tools, mainQueue, files,        archives,
                    defaults, bundle,   dates,   user,  log,       notifications};
};

}  // namespace platform::fake
