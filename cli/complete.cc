#include "cli/complete.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "cli/commands.h"

namespace cli {
namespace {

using Words = std::vector<std::string>;

void addOptions(const CLI::App& app, Words& found) {
  for (const auto* option : app.get_options())
    for (const auto& name : option->get_lnames()) found.push_back("--" + name);
}

void addCommands(const CLI::App& app, Words& found) {
  for (const auto* command : app.get_subcommands({})) found.push_back(command->get_name());
}

Words volumeNames(Session& session) {
  Words names = session.backups().volumes();
  for (const auto& device : session.around().volumes.attached()) names.push_back(device->name());
  return names;
}

void addBackups(Session& session, Words& found) {
  for (const auto& volume : session.backups().volumes()) {
    for (const auto& backup : session.backups().of(volume)) found.push_back(backup.name());
    found.push_back(volume + "/latest");
  }
}

// What stands at a command's place for something without a name.
void addArguments(Session& session, const std::string& argument, Words& found) {
  if (argument == "BACKUP") addBackups(session, found);
  if (argument == "KEY") found = settingNames();
  if (argument == "VALUE") found = {"none", "AES-128", "AES-256", "on", "off"};
  if (argument == "ANSWER") found = {"on", "off", "ask"};
  if (argument == "VOLUME") {
    const auto names = volumeNames(session);
    found.insert(found.end(), names.begin(), names.end());
  }
}

// How the command that the words begin with goes on.
struct Position {
  const CLI::App* command;
  std::size_t arguments = 0;                // without a name, so far
  const CLI::Option* wantsValue = nullptr;  // the option that the last word is the value of
};

const CLI::Option* optionOf(const CLI::App& command, const CLI::App& app, const std::string& word) {
  for (const auto* owner : {&command, &app})
    for (const auto* option : owner->get_options())
      if (option->check_name(word)) return option;
  return nullptr;
}

Position positionAt(const CLI::App& app, const Words& words) {
  Position position{&app};
  for (std::size_t at = 0; at + 1 < words.size(); ++at) {
    position.wantsValue = nullptr;
    if (words[at].starts_with('-')) {
      const auto* option = optionOf(*position.command, app, words[at]);
      if (!option || option->get_expected_min() == 0) continue;
      if (at + 2 == words.size()) position.wantsValue = option;
      ++at;
      continue;
    }
    const auto commands = position.command->get_subcommands(
        [&](const CLI::App* command) { return position.arguments == 0 && command->get_name() == words[at]; });
    if (commands.empty())
      ++position.arguments;
    else
      position.command = commands[0];
  }
  return position;
}

std::string argumentAt(const CLI::App& command, std::size_t place) {
  std::string last;
  for (const auto* option : command.get_options()) {
    if (!option->get_positional()) continue;
    last = option->get_name(true);
    if (place-- == 0 || option->get_items_expected_max() > 1) break;
  }
  return last;
}

}  // namespace

void complete(Session& session, const CLI::App& app, const Words& words) {
  const std::string last = words.empty() ? "" : words.back();
  const Position position = positionAt(app, words);
  Words found;
  if (position.wantsValue) {
    addArguments(session, position.wantsValue->get_type_name(), found);
  } else if (last.starts_with('-')) {
    addOptions(*position.command, found);
    if (position.command != &app) addOptions(app, found);
  } else {
    addCommands(*position.command, found);
    addArguments(session, argumentAt(*position.command, position.arguments), found);
  }
  std::ranges::sort(found);
  found.erase(std::unique(found.begin(), found.end()), found.end());
  for (const auto& word : found)
    if (word.starts_with(last)) session.print(word + "\n");
}

}  // namespace cli
