#include "tests/e2e/agent_world.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

std::unique_ptr<Program> AgentWorld::start(const Arguments& commandLine, Program::Screen screen) {
  return std::make_unique<Program>(commandLine, environment, temporary.path(), screen);
}

AgentWorld::Outcome AgentWorld::outcomeOf(Program& program) {
  const int status = program.wait();
  return {status, program.output(), program.errors()};
}

AgentWorld::Outcome AgentWorld::runAgent(const Arguments& arguments) {
  return outcomeOf(*startAgent(arguments));
}

AgentWorld::Outcome AgentWorld::backUp(Arguments arguments) {
  arguments.insert(arguments.begin(), {"--headless", "--once", "--answer", "backup"});
  return runAgent(arguments);
}

AgentWorld::Outcome AgentWorld::backUpWithoutPrivilege(const Arguments& arguments) {
  Arguments line = {"setpriv",     "--bounding-set", "-dac_override,-dac_read_search",
                    AGENT_PROGRAM, "--answer",       "backup"};
  if (::geteuid() != 0) line.erase(line.begin(), line.begin() + 3);
  line.insert(line.end(), arguments.begin(), arguments.end());
  return outcomeOf(*start(line));
}

std::unique_ptr<Program> AgentWorld::startAgent(const Arguments& arguments) {
  Arguments line = {AGENT_PROGRAM};
  line.insert(line.end(), arguments.begin(), arguments.end());
  return start(line);
}

std::unique_ptr<Program> AgentWorld::openTerminal(const Arguments& arguments) {
  Arguments line = {AGENT_PROGRAM};
  line.insert(line.end(), arguments.begin(), arguments.end());
  return start(line, Program::Screen::terminal);
}

AgentWorld::Outcome AgentWorld::ctl(Arguments arguments) {
  arguments.insert(arguments.begin(), CTL_PROGRAM);
  return outcomeOf(*start(arguments));
}

std::unique_ptr<Program> AgentWorld::openCtl(Arguments arguments) {
  arguments.insert(arguments.begin(), CTL_PROGRAM);
  return start(arguments, Program::Screen::terminal);
}

AgentWorld::Outcome AgentWorld::shell(const std::string& line) {
  return outcomeOf(*start({"sh", "-c", line}));
}

std::string AgentWorld::makeStick(const std::string& name) {
  temporary.write(name + "/notes.txt", "some notes\n");
  temporary.write(name + "/.hidden", "hidden\n");
  temporary.write(name + "/folder with blanks/日本.bin", std::string(100000, 'x'));
  fs::create_directory(temporary / (name + "/empty"));
  fs::create_symlink("notes.txt", temporary / (name + "/link"));
  return temporary / name;
}

AgentWorld::Arguments AgentWorld::filesIn(const std::string& folder, const std::string& suffix) {
  Arguments files;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(folder, none)) {
    if (entry.path().string().ends_with(suffix)) files.push_back(entry.path());
  }
  std::ranges::sort(files);
  return files;
}

void AgentWorld::expectHoldsFolder(const std::string& image, const std::string& folder) {
  const auto unpacked =
      shell("rm -rf unpacked && mkdir unpacked && 7zz x -y -snld -ounpacked \"" + image + "\"");
  EXPECT_EQ(unpacked.status, 0) << unpacked.output << unpacked.errors;
  EXPECT_EQ(unpacked.output.find("Warnings"), std::string::npos) << unpacked.output;
  const auto compared = shell("diff -r --no-dereference unpacked/* \"" + folder + "\"");
  EXPECT_EQ(compared.status, 0) << compared.output << compared.errors;
}
