// What leaves the store.

#include <algorithm>
#include <map>
#include <ranges>
#include <set>

#include "cli/commands.h"
#include "cli/image_tool.h"
#include "cli/retention.h"
#include "cli/text.h"

namespace cli {
namespace {

using base::PropertyList;

// The image first: a manifest without an image is no backup to anybody, an image without its manifest would
// look like a backup that is not encrypted and holds nothing.
std::optional<Problem> removeFiles(Session& session, const Backup& backup) {
  for (const auto& path : {backup.path(), backup.manifestPath()}) {
    const auto removed = session.around().folders.removeFile(path);
    if (!removed) return Problem{Exit::failed, removed.error().message};
  }
  return std::nullopt;
}

std::string volumeOf(const Backup& backup) { return backup.number > 0 ? backup.instance->device() : ""; }

// Whether every backup of some volume is among these.
std::string warning(Session& session, const std::vector<Backup>& backups) {
  std::map<std::string, std::set<std::string>> leaving;
  for (const auto& backup : backups) leaving[volumeOf(backup)].insert(backup.path());
  std::string text;
  for (const auto& [volume, paths] : leaving) {
    if (!volume.empty() && session.backups().of(volume).size() == paths.size())
      text += " No other backup of \"" + volume + "\" is left then.";
  }
  return text;
}

struct Pruning {
  std::vector<Backup> kept;
  std::vector<Backup> leaving;
};

Expected<bool> hasSoundOne(Session& session, const std::vector<Backup>& kept) {
  ImageTool tool(session);
  for (const auto& backup : std::views::reverse(kept)) {
    const auto problem = tool.verify(backup);
    if (!problem) return true;
    if (problem->exit == Exit::interrupted) return *problem;
  }
  return false;
}

Outcome pruneVolume(Session& session, const std::string& volume, const Pruning& pruning) {
  if (pruning.leaving.empty()) return Exit::done;
  const auto sound = hasSoundOne(session, pruning.kept);
  if (!sound) return sound.problem();
  if (!*sound) {
    const auto agreed =
        session.agree("None of the backups of \"" + volume + "\" that stay is known to be sound. Remove " +
                      countText(pruning.leaving.size(), "other") + " all the same?");
    if (!agreed) return agreed;
  }
  for (const auto& backup : pruning.leaving) {
    if (const auto problem = removeFiles(session, backup)) return *problem;
  }
  return Exit::done;
}

}  // namespace

Outcome removeBackups(Session& session, const std::vector<std::string>& names) {
  std::vector<Backup> backups;
  std::map<std::string, std::unique_ptr<StoreFolders::Hold>> held;
  for (const auto& name : names) {
    auto found = session.backups().find(name);
    if (!found) return found.problem();
    const std::string volume = volumeOf(*found);
    if (!volume.empty() && !held.contains(volume)) {
      auto hold = session.hold(volume);
      if (!hold) return hold.problem();
      held.emplace(volume, std::move(*hold));
    }
    const auto isSame = [&](const Backup& known) { return known.path() == found->path(); };
    if (std::ranges::none_of(backups, isSame)) backups.push_back(*found);
  }
  std::string list;
  for (const auto& backup : backups)
    list +=
        (list.empty() ? "" : ", ") + backup.name() + " of " + localDateText(backup.instance->backupDate());
  const auto agreed = session.agree("Remove " + list + "?" + warning(session, backups));
  if (!agreed) return agreed;
  for (const auto& backup : backups) {
    if (const auto problem = removeFiles(session, backup)) return *problem;
    session.say(backup.name() + ": removed");
  }
  return Exit::done;
}

Outcome pruneBackups(Session& session, const PruneRequest& request) {
  const Retention retention{request.keepLast, request.keepDaily, request.keepMonthly};
  if (retention.last + retention.daily + retention.monthly == 0)
    return Problem{Exit::usage, "say what to keep: --keep-last, --keep-daily or --keep-monthly"};
  if (request.volume && session.backups().of(*request.volume).empty())
    return Problem{Exit::notFound, "there is no backup of \"" + *request.volume + "\""};
  PropertyList::Array described;
  for (const auto& volume : request.volume ? std::vector{*request.volume} : session.backups().volumes()) {
    std::unique_ptr<StoreFolders::Hold> held;
    if (!request.isDryRun) {
      auto hold = session.hold(volume);
      if (!hold) return hold.problem();
      held = std::move(*hold);
    }
    const auto backups = session.backups().of(volume);
    std::vector<base::Date> dates;
    for (const auto& backup : backups) dates.push_back(backup.instance->backupDate());
    const auto reasons = reasonsToKeep(dates, retention);
    Pruning pruning;
    for (std::size_t at = 0; at < backups.size(); ++at) {
      const bool stays = !reasons[at].empty();
      (stays ? pruning.kept : pruning.leaving).push_back(backups[at]);
      PropertyList::Dictionary entry{{"name", backups[at].name()},
                                     {"path", backups[at].path()},
                                     {"volume", volume},
                                     {"date", dates[at]},
                                     {"action", stays ? "keep" : "remove"}};
      if (stays) entry.emplace("reason", reasons[at]);
      described.emplace_back(std::move(entry));
      session.say((stays ? "keep    " : "remove  ") + backups[at].name() + "  " + localDateText(dates[at]) +
                  (stays ? "  (" + reasons[at] + ")" : ""));
    }
    if (request.isDryRun) continue;
    const auto pruned = pruneVolume(session, volume, pruning);
    if (!pruned) return pruned;
  }
  if (session.options().json) session.print(jsonText(described));
  return Exit::done;
}

}  // namespace cli
