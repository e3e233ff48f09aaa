#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <map>

#include "cli/commands.h"
#include "cli/complete.h"

namespace cli {
namespace {

constexpr const char* kBackupHelp = "STICK/3, STICK/latest, STICK/2026-11-21, or the path of an image";

// What the arguments of every command are read into.
struct Given {
  CommonOptions common;
  std::string volume;
  std::optional<std::string> optionalVolume;
  std::string backup;
  std::vector<std::string> backups;
  std::vector<std::string> paths;
  std::optional<std::string> to;
  std::string folder;
  bool isLong = false;
  bool verifies = false;
  bool all = false;
  BackUpRequest backUp;
  PruneRequest prune;
  std::optional<std::string> key;
  std::optional<std::string> value;
};

// A command: how it is called, and what it does.
class Commands {
 public:
  using Action = std::function<Outcome(Session&)>;

  Commands() : app_("Back up USB volumes into disk images, and get their contents back.", "stashwickctl") {
    app_.set_version_flag("--version", std::string("stashwickctl ") + STASHWICK_VERSION);
    app_.require_subcommand(1);
    app_.fallthrough();
    addCommonOptions();
    addListings();
    addBackups();
    addRemovals();
    addSettings();
  }

  CLI::App& app() { return app_; }
  const CommonOptions& common() const { return given_.common; }

  // The chosen command and its name; null before a command line was read.
  const Action* chosen(std::string& name) const {
    for (const auto& [command, action] : actions_) {
      if (!command->parsed()) continue;
      name = command->get_name();
      if (const auto* parent = command->get_parent(); parent != &app_) name = parent->get_name() + " " + name;
      return &action;
    }
    return nullptr;
  }

 private:
  CLI::App* add(const std::string& name, const std::string& text, Action action, CLI::App* parent = nullptr) {
    auto* command = (parent ? parent : &app_)->add_subcommand(name, text);
    if (action) actions_.emplace(command, std::move(action));
    return command;
  }

  void addCommonOptions() {
    auto& common = given_.common;
    app_.add_flag("--json", common.json, "Print listings as JSON");
    app_.add_flag("--quiet,-q", common.quiet, "Say nothing but what was asked for, and failures");
    app_.add_flag("--yes,-y", common.yes, "Answer every question with yes");
    auto* input = app_.add_flag("--password-stdin", common.passwordFromInput,
                                "The first line of standard input is the password");
    app_.add_option("--password-file", common.passwordFile, "The first line of this file is the password")
        ->type_name("FILE")
        ->excludes(input);
    app_.add_option("--volumes-folder", common.volumesFolder, "Each folder in this one is an attached volume")
        ->type_name("DIR");
  }

  void addListings() {
    add("volumes", "List the attached volumes", [](Session& session) { return listVolumes(session); });
    auto* list = add("list", "List backups", [this](Session& session) {
      return listBackups(session, given_.optionalVolume, given_.verifies);
    });
    list->add_option("VOLUME", given_.optionalVolume, "Only this volume's");
    list->add_flag("--verify", given_.verifies, "Check each image, and say whether it is sound");
    auto* files = add("files", "List what a backup holds",
                      [this](Session& session) { return listFiles(session, given_.backup, given_.isLong); });
    files->add_option("BACKUP", given_.backup, kBackupHelp)->required();
    files->add_flag("--long,-l", given_.isLong, "With sizes, dates and permissions, from the image itself");
    auto* diff = add("diff", "List what has changed on a volume since the backup", [this](Session& session) {
      return diffBackup(session, given_.backup, given_.optionalVolume);
    });
    diff->add_option("BACKUP", given_.backup, kBackupHelp)->required();
    diff->add_option("VOLUME", given_.optionalVolume, "A volume, or the path of a folder");
    auto* verify = add("verify", "Check every byte of backups", [this](Session& session) {
      return verifyBackups(session, given_.backups, given_.all);
    });
    verify->add_option("BACKUP", given_.backups, kBackupHelp);
    verify->add_flag("--all", given_.all, "All backups in the store");
  }

  void addBackups() {
    auto* backUpCommand = add("backup", "Back up a volume or a folder, and check the image",
                              [this](Session& session) { return backUp(session, given_.backUp); });
    backUpCommand->add_option("VOLUME", given_.backUp.volume, "A volume, or the path of a folder")
        ->required();
    backUpCommand->add_flag("--encrypt", given_.backUp.encrypts, "Encrypt the image");
    backUpCommand->add_flag("--erase-after", given_.backUp.erasesAfter,
                            "Erase the volume once its image was checked");
    auto* restore = add("restore", "Replace all that a volume holds by a backup", [this](Session& session) {
      return restoreBackup(session, given_.backup, given_.to);
    });
    restore->add_option("BACKUP", given_.backup, kBackupHelp)->required();
    restore->add_option("--to", given_.to, "Another volume, or the path of a folder")->type_name("VOLUME");
    auto* extract = add("extract", "Copy files out of a backup", [this](Session& session) {
      return extractBackup(session, given_.backup, given_.paths, given_.folder);
    });
    extract->add_option("BACKUP", given_.backup, kBackupHelp)->required();
    extract->add_option("PATH", given_.paths, "Files and folders in the backup; without any, all of them");
    extract->add_option("--to", given_.folder, "The folder to copy into")->type_name("DIR")->required();
    auto* mount = add("mount", "Mount a backup as a folder",
                      [this](Session& session) { return mountBackup(session, given_.backup); });
    mount->add_option("BACKUP", given_.backup, kBackupHelp)->required();
    auto* unmount = add("unmount", "Unmount a backup",
                        [this](Session& session) { return unmountBackup(session, given_.backup); });
    unmount->add_option("BACKUP", given_.backup, "A backup, or the name of its volume")->required();
  }

  void addRemovals() {
    auto* remove = add("remove", "Delete backups",
                       [this](Session& session) { return removeBackups(session, given_.backups); });
    remove->add_option("BACKUP", given_.backups, kBackupHelp)->required();
    auto* prune = add("prune", "Delete old backups by rule", [this](Session& session) {
      given_.prune.volume = given_.optionalVolume;
      return pruneBackups(session, given_.prune);
    });
    prune->add_option("VOLUME", given_.optionalVolume, "Only this volume's");
    prune->add_option("--keep-last", given_.prune.keepLast, "Keep the newest N")->type_name("N");
    prune
        ->add_option("--keep-daily", given_.prune.keepDaily,
                     "Keep the newest of each of the last N days with backups")
        ->type_name("N");
    prune
        ->add_option("--keep-monthly", given_.prune.keepMonthly,
                     "Keep the newest of each of the last N months with backups")
        ->type_name("N");
    prune->add_flag("--dry-run,-n", given_.prune.isDryRun, "Only say what would go");
  }

  void addSettings() {
    auto* password = add("password", "The password in the keychain", nullptr);
    password->require_subcommand(1);
    password->fallthrough();
    add(
        "set", "Store a password for encrypted backups",
        [](Session& session) { return setPassword(session); }, password);
    add(
        "forget", "Delete the password", [](Session& session) { return forgetPassword(session); }, password);
    auto* check = add(
        "check", "Whether there is a password, or whether it opens a backup",
        [this](Session& session) { return checkPassword(session, given_.key); }, password);
    check->add_option("BACKUP", given_.key, kBackupHelp);
    auto* settingsCommand = add("settings", "Show or change the agent's settings", [this](Session& session) {
      return settings(session, given_.key, given_.value);
    });
    settingsCommand->add_option("KEY", given_.key, "encryption or automatic-backups");
    settingsCommand->add_option("VALUE", given_.value, "none, AES-128 or AES-256; on or off");
    auto* automatic = add("auto", "What the agent does when a volume arrives", [this](Session& session) {
      return automaticBackup(session, given_.volume, given_.value);
    });
    automatic->add_option("VOLUME", given_.volume, "A volume, or the path of a folder")->required();
    automatic->add_option("ANSWER", given_.value, "on: back up without asking, off: never, ask: ask");
  }

  CLI::App app_;
  Given given_;
  std::map<const CLI::App*, Action> actions_;
};

}  // namespace

Exit run(const std::vector<std::string>& arguments, const Surroundings& surroundings) {
  Commands commands;
  if (!arguments.empty() && arguments[0] == "--complete") {
    Session session(surroundings, {});
    complete(session, commands.app(), {arguments.begin() + 1, arguments.end()});
    return Exit::done;
  }
  auto& streams = surroundings.streams;
  try {
    commands.app().parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::ParseError& error) {
    return commands.app().exit(error, streams.out, streams.error) == 0 ? Exit::done : Exit::usage;
  }
  std::string name;
  const auto* action = commands.chosen(name);
  Session session(surroundings, commands.common());
  if (const auto& folder = commands.common().volumesFolder) {
    const auto looked = surroundings.volumes.lookIn(*folder);
    if (!looked) {
      session.warn(name + " failed - " + looked.error().message);
      return Exit::notFound;
    }
  }
  const Outcome outcome = (*action)(session);
  streams.out.flush();
  if (outcome) return *outcome;
  session.warn(name + " failed - " + outcome.problem().text);
  return outcome.problem().exit;
}

}  // namespace cli
