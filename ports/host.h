#pragma once

#include "base/notification_center.h"
#include "ports/archives.h"
#include "ports/bundle.h"
#include "ports/dates.h"
#include "ports/desktop.h"
#include "ports/disk_arbitration.h"
#include "ports/files.h"
#include "ports/keychain.h"
#include "ports/main_queue.h"
#include "ports/system_log.h"
#include "ports/tool_runs.h"
#include "ports/user.h"
#include "ports/user_defaults.h"

namespace ports {

// Everything that the system asks of its host. Filled where a program is wired together; everything here
// outlives whoever is handed it. Logical paths: volumes are /Volumes/NAME, images are mounted at
// /Volumes/NAME-Backup/, tools are /usr/bin/hdiutil, /usr/sbin/diskutil, /usr/bin/rsync and /bin/rm; adapters
// translate them, by whole path components, into what exists.
struct Host {
  DiskArbitration& disks;
  KeychainItems& keychain;
  Desktop& desktop;
  ToolRuns& tools;
  MainQueue& mainQueue;
  Files& files;
  Archives& archives;
  UserDefaults& defaults;
  Bundle& bundle;
  Dates& dates;
  UserSession& user;
  SystemLog& log;
  base::NotificationCenter& notifications;
};

}  // namespace ports
