// A backup, from the question for a password to the erasing of the volume.

#include <algorithm>
#include <cmath>
#include <set>

#include "cli/commands.h"
#include "cli/engine_run.h"
#include "cli/image_tool.h"
#include "cli/text.h"
#include "cli/volume_contents.h"
#include "store/file_size.h"

namespace cli {
namespace {

constexpr std::string_view kEncryptionKey = "ZQStashwickBackupEncryption";
constexpr const char* kDefaultEncryption = "AES-256";
constexpr const char* kMainApplication = "Stashwick";

// Holds a volume against unmounting.
class Claim {
 public:
  explicit Claim(Device device) : device_(std::move(device)) { device_->claim(); }
  ~Claim() { device_->unclaim(); }
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;

 private:
  Device device_;
};

bool isMainApplicationRunning(Session& session) {
  return std::ranges::any_of(session.host().user.runningBundleNames(),
                             [](const auto& name) { return name == kMainApplication; });
}

Expected<EngineRun::Encryption> encryptionFor(Session& session, bool wanted) {
  EngineRun::Encryption encryption{session.host().defaults.stringForKey(kEncryptionKey), nullptr};
  if (!encryption.method && wanted) encryption.method = kDefaultEncryption;
  if (!encryption.method) return encryption;
  auto password = session.password(true);
  if (!password) return password.problem();
  encryption.password = *password;
  return encryption;
}

std::set<std::string> filesOf(Session& session, const std::string& volume, std::string_view extension) {
  std::set<std::string> paths;
  session.host().files.enumerate(session.backups().folder(volume), {}, [&](const ports::FileItem& item) {
    if (item.isRegularFile && item.name.ends_with(extension)) paths.emplace(item.path);
    return true;
  });
  return paths;
}

// What stands in the store of one volume, to see afterwards what came.
class StoreBefore {
 public:
  StoreBefore(Session& session, std::string volume)
      : session_(session),
        volume_(std::move(volume)),
        images_(filesOf(session, volume_, ".dmg")),
        manifests_(filesOf(session, volume_, ".manifest")) {}

  std::optional<Backup> newBackup() const {
    const auto backups = session_.backups().of(volume_);
    const auto found = std::ranges::find_if(
        backups, [this](const Backup& backup) { return !images_.contains(backup.path()); });
    return found == backups.end() ? std::nullopt : std::optional(*found);
  }

  // A backup that failed leaves its manifest, which describes nothing.
  void removeNewManifests() const {
    for (const auto& manifest : filesOf(session_, volume_, ".manifest")) {
      if (manifests_.contains(manifest)) continue;
      const auto removed = session_.around().folders.removeFile(manifest);
      if (!removed) session_.warn(removed.error().message);
    }
  }

 private:
  Session& session_;
  const std::string volume_;
  const std::set<std::string> images_;
  const std::set<std::string> manifests_;
};

// Backups are named by the second of their start: two of one volume cannot begin in the same.
bool waitForNewName(Session& session, const std::string& volume) {
  constexpr double kClockTick = 0.02;  // file systems stamp with a clock that lags by up to so much
  const auto backups = session.backups().of(volume);
  const double now = session.host().dates.now().unix();
  if (backups.empty() || backups.back().instance->backupDate().unix() + kClockTick < std::floor(now))
    return true;
  bool isOver = false;
  session.host().mainQueue.postAfter(std::floor(now) + 1 - now, [&] { isOver = true; });
  return session.serveUntil("Waiting for the next second", [&] { return isOver; });
}

Expected<Backup> makeBackup(Session& session, const std::string& volume,
                            const EngineRun::Encryption& encryption) {
  if (!waitForNewName(session, volume)) return Session::interrupted();
  const StoreBefore before(session, volume);
  EngineRun run(session, encryption);
  const auto record =
      ZQStashwickQueryResult::initWithPath(session.around().walkedFiles, {"/Volumes/" + volume, true}, true);
  run.engine().setBackupQuery(record);
  const auto ended = run.wait("Backing up \"" + volume + "\"");
  const auto backup = before.newBackup();
  if (ended && backup) return *backup;
  if (!backup) before.removeNewManifests();
  if (!ended) return ended.problem();
  // A failure in the last step is not told.
  return run.tools().failure().value_or(
      Problem{Exit::failed, "the disk image tool ended without an image and without saying why"});
}

// Whether the agent would make the backup that is wanted. Its password is the keychain's; and where its last
// backup failed, it tells of that on its desktop instead of making another.
bool canLeaveToAgent(Session& session, Agent& agent, const BackUpRequest& request) {
  if (request.encrypts || request.erasesAfter || session.isPasswordGiven()) return false;
  const bool hasPassword = !session.host().defaults.stringForKey(kEncryptionKey) || session.storedPassword();
  return hasPassword && agent.lastFailure().empty();
}

bool isWorkingOn(Agent& agent, const std::string& volume) {
  const auto current = agent.currentVolume();
  return current && *current == volume;
}

Expected<Backup> leaveToAgent(Session& session, Agent& agent, const std::string& volume) {
  if (!waitForNewName(session, volume)) return Session::interrupted();
  const StoreBefore before(session, volume);
  if (const auto begun = agent.begin(volume); !begun) return Problem{Exit::busy, begun.error().message};
  if (!session.serveUntil("The agent backs up \"" + volume + "\"", [&] { return agent.isOver(); }))
    return Problem{Exit::interrupted, "it was interrupted; the agent goes on with the backup"};
  if (const auto backup = before.newBackup()) return *backup;
  const auto failure = agent.lastFailure();
  return problemIn(failure).value_or(
      Problem{Exit::failed, failure.empty() ? "the agent made no backup and does not say why" : failure});
}

// Only what the image holds may go: what was changed or came since it was made would be lost.
std::optional<Problem> compareBeforeErasing(Session& session, const Backup& backup,
                                            const std::string& volume) {
  const auto changes = ImageTool(session).compare(backup, "/Volumes/" + volume);
  if (!changes) return changes.problem();
  if (changes->empty()) return std::nullopt;
  return Problem{Exit::differences, "\"" + volume +
                                        "\" is not erased: " + countText(changes->size(), "difference") +
                                        " from the backup (see stashwickctl diff " + backup.name() + ")"};
}

Outcome eraseVolume(Session& session, const Backup& backup, const std::string& volume) {
  if (const auto problem = compareBeforeErasing(session, backup, volume)) return *problem;
  const auto contents = contentsOf(session, volume);
  if (!contents) return contents.problem();
  const auto agreed = session.agree("Erase everything on \"" + volume + "\" (" + contents->text() + ")?");
  if (!agreed) return agreed.problem();
  EngineRun run(session, {});
  const bool ended = session.perform("Erasing \"" + volume + "\"",
                                     [&] { run.engine()._eraseInstance(backup.instance.get()); });
  if (!ended) return Session::interrupted();
  const auto left = contentsOf(session, volume);
  if (!left) return left.problem();
  if (left->items > 0)
    return Problem{Exit::failed, left->text() + " on \"" + volume + "\" could not be erased"};
  session.say("\"" + volume + "\" was erased.");
  return Exit::done;
}

Expected<Backup> verified(Session& session, Expected<Backup> backup) {
  if (!backup) return backup;
  if (auto problem = ImageTool(session).verify(*backup)) {
    problem->text = backup->name() + " was made and does not verify: " + problem->text;
    return *problem;
  }
  session.say(backup->instance->device() + ": backed up to " + backup->name() + ", " +
              FileSize::stringFromFileSize(session.host().files.fileSize(backup->path()).value_or(0)) +
              ", verified\n" + backup->path());
  return backup;
}

}  // namespace

Outcome backUp(Session& session, const BackUpRequest& request) {
  const auto device = session.volume(request.volume);
  if (!device) return device.problem();
  const std::string volume = (*device)->name();
  if (request.erasesAfter && !session.options().yes && !session.around().terminal.isAttended())
    return Problem{Exit::usage,
                   "there is nobody to ask before \"" + volume + "\" is erased (--yes answers yes)"};
  if (request.erasesAfter && session.around().volumes.holds(**device, session.backups().root()))
    return Problem{Exit::usage, "\"" + volume + "\" holds the backups themselves"};
  if (isMainApplicationRunning(session))
    return Problem{Exit::busy, "the application Stashwick is running, which makes backups itself"};
  auto* agent = session.around().volumes.agentOf(**device);
  if (agent && isWorkingOn(*agent, volume))
    return Problem{Exit::busy, "the agent is backing up \"" + volume + "\""};
  if (agent && canLeaveToAgent(session, *agent, request)) {
    const auto backup = verified(session, leaveToAgent(session, *agent, volume));
    return backup ? Outcome(Exit::done) : backup.problem();
  }
  const auto encryption = encryptionFor(session, request.encrypts);
  if (!encryption) return encryption.problem();
  const auto held = session.hold(volume);
  if (!held) return held.problem();
  const Claim claim(*device);
  const auto backup = verified(session, makeBackup(session, volume, *encryption));
  if (!backup) return backup.problem();
  return request.erasesAfter ? eraseVolume(session, *backup, volume) : Outcome(Exit::done);
}

}  // namespace cli
