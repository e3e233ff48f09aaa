// What comes back out of a backup.

#include <algorithm>

#include "cli/commands.h"
#include "cli/engine_run.h"
#include "cli/image_tool.h"
#include "cli/text.h"
#include "cli/volume_contents.h"
#include "store/file_size.h"

namespace cli {
namespace {

Expected<Amount> contentsOf(Session& session, const Backup& backup) {
  const auto items = ImageTool(session).list(backup);
  if (!items) return items.problem();
  Amount amount;
  for (const auto& item : *items) {
    const auto* entry = item.as<base::PropertyList::Dictionary>();
    if (!entry) continue;
    ++amount.items;
    amount.bytes += static_cast<std::uint64_t>(base::findNumber(*entry, "size").value_or(0));
  }
  return amount;
}

// Nothing of a volume is touched that cannot take all of the backup.
Outcome compareSpace(Session& session, const std::string& volume, const Amount& before, const Amount& after) {
  const auto free = session.host().files.fileSystemFreeSize("/Volumes/" + volume);
  if (!free || *free + before.bytes >= after.bytes) return Exit::done;
  return Problem{Exit::failed, "\"" + volume + "\" is too small: the backup holds " +
                                   FileSize::stringFromFileSize(after.bytes) + ", and there is room for " +
                                   FileSize::stringFromFileSize(*free + before.bytes)};
}

std::string quoted(const std::string& text) {
  std::string quotedText = "'";
  for (const char c : text) quotedText += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quotedText + "'";
}

// A restore that was killed may have left no folder.
Outcome makeMissingFolder(Session& session, const std::string& to) {
  if (to.find('/') == to.npos || session.host().files.fileExists(to)) return Exit::done;
  const auto agreed = session.agree("There is no folder " + quoted(to) + ". Make it?");
  if (!agreed) return agreed;
  if (session.host().files.createDirectory(to)) return Exit::done;
  return Problem{Exit::failed, "cannot make the folder " + quoted(to)};
}

// Everything that stands between the wish and the erasing.
Outcome prepare(Session& session, const Backup& backup, const ZQRemovableDevice& target) {
  const std::string& volume = target.name();
  if (session.around().volumes.holds(target, session.backups().root()) ||
      session.around().volumes.holds(target, backup.path()))
    return Problem{Exit::usage, "\"" + volume + "\" holds the backup itself"};
  if (const auto problem = ImageTool(session).verify(backup)) return *problem;
  const auto after = contentsOf(session, backup);
  if (!after) return after.problem();
  const auto before = cli::contentsOf(session, volume);
  if (!before) return before.problem();
  const auto fits = compareSpace(session, volume, *before, *after);
  if (!fits) return fits;
  session.say("Everything on \"" + volume + "\" (" + session.around().volumes.place(target) + ": " +
              before->text() + ") will be erased.");
  session.say(backup.name() + " of " + localDateText(backup.instance->backupDate()) + " (" + after->text() +
              ") comes back.");
  return session.agree("Erase \"" + volume + "\" and restore " + backup.name() + "?");
}

// What a chain that was stopped leaves: the copy's failure keeps the image mounted.
void unmountAfterFailure(Session& session, const std::string& device) {
  session.around().lastTools.run({.launchPath = "/usr/bin/hdiutil",
                                  .arguments = {"unmount", "/Volumes/" + device + "-Backup/"},
                                  .capture = ports::ToolRun::Capture::bothOutputs});
}

Problem incomplete(const Problem& why, const Backup& backup, const std::string& volume,
                   const std::string& target) {
  return {why.exit == Exit::interrupted ? Exit::interrupted : Exit::failed,
          why.text + "\n\"" + volume + "\" is incomplete now. The backup is untouched. To try again:\n  " +
              "stashwickctl restore " + quoted(backup.name()) + " --to " + quoted(target)};
}

bool isOfContents(const base::PropertyList& difference) {
  const auto* entry = difference.as<base::PropertyList::Dictionary>();
  const auto* change = entry ? base::find<std::string>(*entry, "change") : nullptr;
  const auto* what = entry ? base::find<base::PropertyList::Array>(*entry, "what") : nullptr;
  if (!change || *change != "changed" || !what) return true;
  return std::ranges::any_of(*what, [](const base::PropertyList& part) {
    const auto* text = part.as<std::string>();
    return text && (*text == "contents" || *text == "kind");
  });
}

// The copying tool's words do not tell what is there: on file systems without owners it complains although
// every byte was copied.
std::optional<Problem> compareContents(Session& session, const Backup& backup, const std::string& volume) {
  const auto differences = ImageTool(session).compare(backup, "/Volumes/" + volume);
  if (!differences) return differences.problem();
  const auto count = std::ranges::count_if(*differences, isOfContents);
  if (count == 0) return std::nullopt;
  return Problem{Exit::failed,
                 countText(static_cast<std::uint64_t>(count), "difference") + " from the backup"};
}

Outcome judge(Session& session, const Backup& backup, const std::string& volume, const std::string& to,
              const std::optional<Problem>& told) {
  if (told && told->exit == Exit::interrupted) return incomplete(*told, backup, volume, to);
  if (const auto problem = compareContents(session, backup, volume)) {
    const std::string why = told ? told->text + "; " : "";
    return incomplete({problem->exit, why + problem->text}, backup, volume, to);
  }
  if (told) session.warn("all contents are restored, but not every attribute: " + told->text);
  session.say(volume + ": restored " + backup.name() + ", and compared with it");
  return Exit::done;
}

}  // namespace

Outcome restoreBackup(Session& session, const std::string& name, const std::optional<std::string>& to) {
  const auto backup = session.backups().find(name);
  if (!backup) return backup.problem();
  const std::string device = backup->instance->device();
  if (device.empty())
    return Problem{Exit::usage, "the image has no manifest that tells its volume; see stashwickctl extract"};
  const auto made = makeMissingFolder(session, to.value_or(device));
  if (!made) return made;
  const auto target = session.volume(to.value_or(device));
  if (!target) return target.problem();
  const std::string volume = (*target)->name();
  const auto held = session.hold(device);
  if (!held) return held.problem();
  const auto prepared = prepare(session, *backup, **target);
  if (!prepared) return prepared;

  const bool isEncrypted = backup->instance->encrypted();
  const auto password = isEncrypted ? session.password() : Expected<Session::Password>(nullptr);
  if (!password) return password.problem();
  // The engine restores onto the volume that the backup was made from.
  session.around().volumes.standIn(device, **target);
  EngineRun run(session, {});
  run.engine().restoreWithBackupInstance(backup->instance, *password);
  const auto ended = run.wait("Restoring " + backup->name() + " to \"" + volume + "\"");
  std::optional<Problem> told;
  if (!ended) told = ended.problem();
  if (ended && !*ended) told = run.tools().failure().value_or(Problem{Exit::failed, "it ended too early"});
  if (told && run.tools().hasBegun("/usr/bin/hdiutil")) unmountAfterFailure(session, device);
  if (!run.tools().hasBegun("/bin/rm")) return told.value_or(Problem{Exit::failed, "nothing was begun"});
  return judge(session, *backup, volume, to.value_or(device), told);
}

Outcome extractBackup(Session& session, const std::string& name, const std::vector<std::string>& paths,
                      const std::string& folder) {
  const auto backup = session.backups().find(name);
  if (!backup) return backup.problem();
  if (const auto problem = ImageTool(session).extract(*backup, paths, folder)) return *problem;
  session.say(backup->name() + ": extracted to " + folder);
  return Exit::done;
}

Outcome mountBackup(Session& session, const std::string& name) {
  const auto backup = session.backups().find(name);
  if (!backup) return backup.problem();
  if (const auto problem = ImageTool(session).mount(*backup)) return *problem;
  session.say(backup->name() + ": mounted");
  return Exit::done;
}

Outcome unmountBackup(Session& session, const std::string& backupOrVolume) {
  const auto backup = session.backups().find(backupOrVolume);
  std::string volume = backupOrVolume;
  if (backup && !backup->instance->device().empty()) volume = backup->instance->device();
  if (const auto problem =
          ImageTool(session).unmount(volume + (volume.ends_with("-Backup") ? "" : "-Backup")))
    return *problem;
  session.say(backupOrVolume + ": unmounted");
  return Exit::done;
}

}  // namespace cli
