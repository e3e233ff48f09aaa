#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/session.h"

namespace cli {

// The commands, one function each. What they have to say goes through the session; a Problem is told by
// whoever called. A backup is given by its name, as StoredBackups finds it.

Outcome listVolumes(Session& session);
Outcome listBackups(Session& session, const std::optional<std::string>& volume, bool verifies);
Outcome listFiles(Session& session, const std::string& name, bool isLong);
Outcome verifyBackups(Session& session, const std::vector<std::string>& names, bool all);
Outcome diffBackup(Session& session, const std::string& name, const std::optional<std::string>& volume);

struct BackUpRequest {
  std::string volume;  // or a folder
  bool encrypts = false;
  bool erasesAfter = false;
};
Outcome backUp(Session& session, const BackUpRequest& request);
// Deletes everything on the volume first, by the engine's own steps.
Outcome restoreBackup(Session& session, const std::string& name, const std::optional<std::string>& to);
Outcome extractBackup(Session& session, const std::string& name, const std::vector<std::string>& paths,
                      const std::string& folder);
Outcome mountBackup(Session& session, const std::string& name);
Outcome unmountBackup(Session& session, const std::string& backupOrVolume);

Outcome removeBackups(Session& session, const std::vector<std::string>& names);
struct PruneRequest {
  std::optional<std::string> volume;
  std::size_t keepLast = 0;
  std::size_t keepDaily = 0;
  std::size_t keepMonthly = 0;
  bool isDryRun = false;
};
Outcome pruneBackups(Session& session, const PruneRequest& request);

Outcome setPassword(Session& session);
Outcome forgetPassword(Session& session);
Outcome checkPassword(Session& session, const std::optional<std::string>& name);

Outcome settings(Session& session, const std::optional<std::string>& key,
                 const std::optional<std::string>& value);
std::vector<std::string> settingNames();
Outcome automaticBackup(Session& session, const std::string& name, const std::optional<std::string>& answer);

}  // namespace cli
