#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/outcome.h"
#include "cli/stored_backups.h"
#include "cli/surroundings.h"

namespace cli {

// What is asked for with every command.
struct CommonOptions {
  bool json = false;
  bool quiet = false;
  bool yes = false;
  bool passwordFromInput = false;
  std::optional<std::string> passwordFile;
  std::optional<std::string> volumesFolder;
};

// What the commands share: talking to the user, work beside the main thread, volumes, locks, passwords. Main
// thread.
class Session {
 public:
  using Password = std::shared_ptr<const base::Secret>;

  Session(const Surroundings& surroundings, CommonOptions options);

  const ports::Host& host() const { return around_.host; }
  const Surroundings& around() const { return around_; }
  const CommonOptions& options() const { return options_; }
  const StoredBackups& backups() const { return backups_; }

  // Standard output: what the command is for. The other is left out when quiet was asked for.
  void print(std::string_view text);
  void say(const std::string& line);
  // Standard error: what the user should know although the command goes on.
  void warn(const std::string& text);
  // A table under a head, which is bold on a terminal.
  void printTable(std::vector<std::string> head, std::vector<std::vector<std::string>> rows,
                  const std::vector<std::size_t>& right = {});
  // A text as it stands, or harmless where it would reach a terminal.
  std::string shown(std::string_view text) const;

  // Whether the user agrees: by --yes, or asked. A Problem when nobody can be asked.
  Outcome agree(const std::string& question);

  // Runs the work on a thread of its own while the main queue is served, with a line on the terminal that
  // says what goes on. False when it was interrupted; the work has ended in either case.
  bool perform(const std::string& activity, const std::function<void()>& work);
  // What the tool printed.
  Expected<std::string> run(const std::string& activity, const ports::ToolRun& run);
  // Serves the main queue until the condition holds.
  bool serveUntil(const std::string& activity, const std::function<bool()>& done);

  // An attached volume by its name, or a folder by its path ("./STICK", "/media/pat/STICK"), mounted or not.
  Expected<Device> attachedVolume(const std::string& nameOrFolder);
  // The same, mounted.
  Expected<Device> volume(const std::string& nameOrFolder);
  // Keeps other programs off the volume's backups. Makes the volume's folder of the store.
  Expected<std::unique_ptr<StoreFolders::Hold>> hold(const std::string& volume);

  bool isPasswordGiven() const { return options_.passwordFromInput || options_.passwordFile; }
  // The password that was given, or the keychain's, or one that is asked for; the same for all of the
  // command. `twice` has a password that is typed typed again.
  Expected<Password> password(bool twice = false);
  // The keychain's.
  std::optional<base::Secret> storedPassword() const;
  // Another than the one that was refused, asked for on a terminal.
  Expected<Password> otherPassword();
  // One that was given, or is asked for twice, whatever the keychain holds.
  Expected<Password> newPassword();

  static Problem interrupted() { return {Exit::interrupted, "it was interrupted"}; }

 private:
  class Activity;
  Expected<Password> askPassword(bool twice);
  // Null when none was given.
  Expected<Password> givenPassword();

  Surroundings around_;
  CommonOptions options_;
  StoredBackups backups_;
  Password password_;
};

}  // namespace cli
