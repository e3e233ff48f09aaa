#pragma once

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/program.h"
#include "tests/platform/posix/temporary_folder.h"

// The agent's own programs, with a home of their own: settings and store below home(), folders to back up
// beside it, and no session bus.
class AgentWorld : public testing::Test {
 protected:
  using Arguments = std::vector<std::string>;
  struct Outcome {
    int status;
    std::string output;
    std::string errors;
  };

  // Runs the agent to its end, with nobody at a terminal.
  Outcome runAgent(const Arguments& arguments);
  // The same with the answer "Backup".
  Outcome backUp(Arguments arguments);
  // The same without root's way past permissions, which others do not have anyway.
  Outcome backUpWithoutPrivilege(const Arguments& arguments);
  std::unique_ptr<Program> startAgent(const Arguments& arguments);
  std::unique_ptr<Program> openTerminal(const Arguments& arguments);
  // The command line, to its end; or on a terminal.
  Outcome ctl(Arguments arguments);
  std::unique_ptr<Program> openCtl(Arguments arguments);
  Outcome shell(const std::string& line);
  // Any program in this world.
  std::unique_ptr<Program> start(const Arguments& commandLine,
                                 Program::Screen screen = Program::Screen::none);
  static Outcome outcomeOf(Program& program);

  // A folder with files of several kinds.
  std::string makeStick(const std::string& name);
  std::string storeOf(const std::string& volume) const { return support() + "/" + volume; }
  std::string support() const { return dataHome + "/Stashwick 3"; }
  std::string listFile() const { return support() + "/StashwickHelper.plist"; }
  // Paths of the files in a folder that end so, sorted.
  static Arguments filesIn(const std::string& folder, const std::string& suffix);
  Arguments imagesOf(const std::string& volume) const { return filesIn(storeOf(volume), ".dmg"); }

  // That 7-Zip finds no fault with the image and gets exactly the folder's contents out of it.
  void expectHoldsFolder(const std::string& image, const std::string& folder);

  TemporaryFolder temporary;
  std::string dataHome = temporary / "home/data";
  std::string configHome = temporary / "home/config";
  // Of every program that is started; there is no message bus, unless a test brings one.
  std::map<std::string, std::string> environment = {
      {"HOME", temporary / "home"},
      {"XDG_DATA_HOME", dataHome},
      {"XDG_CONFIG_HOME", configHome},
      {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + temporary / "no-bus"},
      {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + temporary / "no-bus"},
      {"LC_ALL", "C.UTF-8"},
      {"LANGUAGE", ""},
      {"TZ", "UTC"}};
};
