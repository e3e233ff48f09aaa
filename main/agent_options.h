#pragma once

#include <optional>
#include <string>
#include <vector>

// What the agent is asked for on its command line.
struct AgentOptions {
  bool headless = false;
  bool remember = false;
  bool once = false;
  std::optional<int> answer;  // the button, from 0: Backup, Later, Ignore Volume
  std::optional<std::string> passwordFile;
  std::optional<std::string> volumesFolder;
  std::vector<std::string> folders;

  // Nothing is asked for that only makes sense without a desktop.
  bool isForDesktop() const {
    return !headless && !remember && !once && !answer && !passwordFile && !volumesFolder && folders.empty();
  }
};

// Either the options, or the exit status of a command line that asks for help or the version (0), or is wrong
// (2); what there is to say has been said then.
struct AgentCommandLine {
  AgentOptions options;
  std::optional<int> exitStatus;

  static AgentCommandLine parse(int argc, char** argv);
};
