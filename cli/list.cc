// What there is: volumes, backups, files, and whether they are sound.

#include "base/property_list.h"
#include "cli/commands.h"
#include "cli/image_tool.h"
#include "cli/text.h"
#include "store/file_size.h"

namespace cli {
namespace {

using base::PropertyList;

constexpr std::string_view kFolder = "folder";

std::uint64_t imageSize(Session& session, const Backup& backup) {
  return session.host().files.fileSize(backup.path()).value_or(0);
}

std::string sizeText(std::uint64_t bytes) { return FileSize::stringFromFileSize(bytes); }

PropertyList::Dictionary describe(Session& session, const Backup& backup) {
  PropertyList::Dictionary described{{"name", backup.name()},
                                     {"path", backup.path()},
                                     {"volume", backup.instance->device()},
                                     {"number", static_cast<std::int64_t>(backup.number)},
                                     {"size", static_cast<std::int64_t>(imageSize(session, backup))},
                                     {"encrypted", backup.instance->encrypted()}};
  if (backup.number > 0) described.emplace("date", backup.instance->backupDate());
  return described;
}

// One word for a table, and what went wrong for those who read on.
std::string verdict(const std::optional<Problem>& problem) {
  if (!problem) return "sound";
  if (problem->exit == Exit::differences) return "damaged";
  return problem->exit == Exit::authentication ? "locked" : "unknown";
}

Exit worse(Exit a, Exit b) {
  if (a == Exit::differences || b == Exit::differences) return Exit::differences;
  return a == Exit::done ? b : a;
}

std::string textOf(const PropertyList::Dictionary& item, std::string_view key) {
  const auto* text = base::find<std::string>(item, key);
  return text ? *text : "";
}

// The parts of a text in several elements: "contents, mode".
std::string textsOf(const PropertyList::Dictionary& item, std::string_view key) {
  std::string texts;
  const auto* parts = base::find<PropertyList::Array>(item, key);
  for (const auto& part : parts ? *parts : PropertyList::Array())
    if (const auto* text = part.as<std::string>()) texts += (texts.empty() ? "" : ", ") + *text;
  return texts;
}

std::string numberOf(const PropertyList::Dictionary& item, std::string_view key) {
  const auto number = base::findNumber(item, key);
  return number ? std::to_string(static_cast<std::int64_t>(*number)) : "";
}

std::string modeText(const PropertyList::Dictionary& item) {
  const auto mode = static_cast<unsigned>(base::findNumber(item, "mode").value_or(0));
  std::string text;
  for (int bit = 8; bit >= 0; --bit) text += (mode >> bit & 1U) != 0 ? "xwr"[bit % 3] : '-';
  return text;
}

std::string dateOf(const PropertyList::Dictionary& item) {
  const auto* date = base::find<base::Date>(item, "modified");
  return date ? localDateText(*date) : "";
}

// What the list in a manifest, or in the image itself, says.
std::optional<PropertyList::Array> filesInManifest(Session& session, const Backup& backup) {
  const auto manifest = session.backups().manifest(backup);
  const auto files = manifest && manifest->result() ? manifest->result()->files() : nullptr;
  if (!files) return std::nullopt;
  const std::string root = manifest->result()->path().path + "/";
  PropertyList::Array items;
  items.reserve(files->size());
  for (const auto& file : *files) {
    const std::string_view path = file.path;
    items.emplace_back(
        PropertyList::Dictionary{{"path", path.starts_with(root) ? path.substr(root.size()) : path},
                                 {"kind", file.isDirectory ? kFolder : std::string_view("file")}});
  }
  return items;
}

void printFiles(Session& session, const PropertyList::Array& items) {
  std::string text;
  for (const auto& item : items) {
    const auto* entry = item.as<PropertyList::Dictionary>();
    if (!entry) continue;
    text += session.shown(textOf(*entry, "path"));
    text += textOf(*entry, "kind") == kFolder ? "/\n" : "\n";
  }
  session.print(text);
}

void printLong(Session& session, const PropertyList::Array& items) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& item : items) {
    const auto* entry = item.as<PropertyList::Dictionary>();
    if (!entry) continue;
    const auto target = textOf(*entry, "target");
    rows.push_back({textOf(*entry, "kind"), modeText(*entry), numberOf(*entry, "user"),
                    numberOf(*entry, "group"), numberOf(*entry, "size"), dateOf(*entry),
                    textOf(*entry, "path") + (target.empty() ? "" : " -> " + target)});
  }
  session.printTable({"KIND", "MODE", "USER", "GROUP", "SIZE", "MODIFIED", "PATH"}, std::move(rows),
                     {2, 3, 4});
}

}  // namespace

Outcome listVolumes(Session& session) {
  PropertyList::Array described;
  std::vector<std::vector<std::string>> rows;
  for (const auto& device : session.around().volumes.attached()) {
    const auto backups = session.backups().of(device->name());
    const auto size = static_cast<std::uint64_t>(std::max(device->size(), 0.0F));
    const auto place = session.around().volumes.place(*device);
    PropertyList::Dictionary entry{{"name", device->name()},
                                   {"place", place},
                                   {"size", static_cast<std::int64_t>(size)},
                                   {"backups", static_cast<std::int64_t>(backups.size())}};
    if (device->UDID()) entry.emplace("udid", *device->UDID());
    if (!backups.empty()) entry.emplace("lastBackup", backups.back().instance->backupDate());
    described.emplace_back(std::move(entry));
    rows.push_back({device->name(), sizeText(size), std::to_string(backups.size()),
                    backups.empty() ? "never" : localDateText(backups.back().instance->backupDate()),
                    place.empty() ? "not mounted" : place});
  }
  if (session.options().json) {
    session.print(jsonText(described));
  } else if (rows.empty()) {
    session.say("No volume is attached.");
  } else {
    session.printTable({"VOLUME", "SIZE", "BACKUPS", "LAST BACKUP", "PLACE"}, std::move(rows), {1, 2});
  }
  return Exit::done;
}

Outcome listBackups(Session& session, const std::optional<std::string>& volume, bool verifies) {
  std::vector<Backup> backups;
  for (const auto& name : volume ? std::vector{*volume} : session.backups().volumes()) {
    const auto found = session.backups().of(name);
    backups.insert(backups.end(), found.begin(), found.end());
  }
  if (volume && backups.empty()) return Problem{Exit::notFound, "there is no backup of \"" + *volume + "\""};
  Exit exit = Exit::done;
  PropertyList::Array described;
  std::vector<std::vector<std::string>> rows;
  ImageTool tool(session);
  for (const auto& backup : backups) {
    const auto files = backup.instance->files();
    auto entry = describe(session, backup);
    if (files) entry.emplace("files", static_cast<std::int64_t>(files->size()));
    rows.push_back({backup.name(), localDateText(backup.instance->backupDate()),
                    sizeText(imageSize(session, backup)), files ? std::to_string(files->size()) : "?",
                    backup.instance->encrypted() ? "encrypted" : ""});
    if (verifies) {
      const auto problem = tool.verify(backup);
      if (problem && problem->exit == Exit::interrupted) return *problem;
      if (problem) exit = worse(exit, problem->exit);
      entry.emplace("verified", verdict(problem));
      rows.back().push_back(verdict(problem));
    }
    described.emplace_back(std::move(entry));
  }
  if (session.options().json) {
    session.print(jsonText(described));
  } else if (rows.empty()) {
    session.say("There are no backups.");
  } else {
    std::vector<std::string> head{"BACKUP", "DATE", "SIZE", "FILES", "ENCRYPTED"};
    if (verifies) head.emplace_back("VERIFIED");
    session.printTable(std::move(head), std::move(rows), {2, 3});
  }
  return exit;
}

Outcome listFiles(Session& session, const std::string& name, bool isLong) {
  const auto backup = session.backups().find(name);
  if (!backup) return backup.problem();
  auto items = isLong ? std::nullopt : filesInManifest(session, *backup);
  if (!items) {
    auto listed = ImageTool(session).list(*backup);
    if (!listed) return listed.problem();
    items = std::move(*listed);
  }
  if (session.options().json) {
    session.print(jsonText(*items));
  } else {
    isLong ? printLong(session, *items) : printFiles(session, *items);
  }
  return Exit::done;
}

Outcome verifyBackups(Session& session, const std::vector<std::string>& names, bool all) {
  if (names.empty() && !all) return Problem{Exit::usage, "name the backups, or give --all"};
  std::vector<Backup> backups;
  for (const auto& name : names) {
    const auto found = session.backups().find(name);
    if (!found) return found.problem();
    backups.push_back(*found);
  }
  for (const auto& volume : all ? session.backups().volumes() : std::vector<std::string>()) {
    const auto found = session.backups().of(volume);
    backups.insert(backups.end(), found.begin(), found.end());
  }
  Exit exit = Exit::done;
  PropertyList::Array described;
  ImageTool tool(session);
  for (const auto& backup : backups) {
    const auto problem = tool.verify(backup);
    if (problem && problem->exit == Exit::interrupted) return *problem;
    auto entry = describe(session, backup);
    entry.emplace("verified", verdict(problem));
    if (problem) entry.emplace("reason", problem->text);
    described.emplace_back(std::move(entry));
    if (!problem) session.say(backup.name() + ": sound");
    if (problem) session.warn(backup.name() + ": verify failed - " + problem->text);
    if (problem) exit = worse(exit, problem->exit);
  }
  if (session.options().json) session.print(jsonText(described));
  return exit;
}

Outcome diffBackup(Session& session, const std::string& name, const std::optional<std::string>& volume) {
  const auto backup = session.backups().find(name);
  if (!backup) return backup.problem();
  const auto device = session.volume(volume.value_or(backup->instance->device()));
  if (!device) return device.problem();
  const auto changes = ImageTool(session).compare(*backup, "/Volumes/" + (*device)->name());
  if (!changes) return changes.problem();
  std::vector<std::vector<std::string>> rows;
  for (const auto& change : *changes) {
    const auto* entry = change.as<PropertyList::Dictionary>();
    if (entry) rows.push_back({textOf(*entry, "change"), textOf(*entry, "path"), textsOf(*entry, "what")});
  }
  if (session.options().json) {
    session.print(jsonText(*changes));
  } else if (rows.empty()) {
    session.say("\"" + (*device)->name() + "\" is as it was backed up.");
  } else {
    session.printTable({"CHANGE", "PATH", "WHAT"}, std::move(rows));
  }
  return changes->empty() ? Exit::done : Exit::differences;
}

}  // namespace cli
