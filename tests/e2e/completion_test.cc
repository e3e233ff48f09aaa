// Completion in the shells themselves, by what the completed line does.

#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>

#include "tests/e2e/agent_world.h"

namespace {

struct Shell {
  std::string name;
  std::vector<std::string> commandLine;
  std::string setUp;  // ends with the prompt "ready> "
};

void PrintTo(const Shell& shell, std::ostream* out) { *out << shell.name; }

const std::string kCompletions = PACKAGING_FOLDER "/completions";

const Shell kShells[] = {
    {"bash", {"bash", "--norc", "-i"}, "source '" + kCompletions + "/stashwickctl.bash'; PS1='rea''dy> '"},
    {"zsh",
     {"zsh", "-f", "-i"},
     "fpath=('" + kCompletions + "' $fpath); autoload -Uz compinit; compinit -u -D; PS1='rea''dy> '"},
    {"fish",
     {"fish", "--no-config", "-i"},
     "source '" + kCompletions + "/stashwickctl.fish'; function fish_prompt; echo -n 'rea''dy> '; end"},
};

class Completion : public AgentWorld, public testing::WithParamInterface<Shell> {
 protected:
  Completion() {
    for (const auto* stick : {"MY STICK", "A:B"}) EXPECT_EQ(backUp({makeStick(stick)}).status, 0);
    const std::string programs = std::filesystem::path(CTL_PROGRAM).parent_path();
    environment["PATH"] = programs + ":" + std::getenv("PATH");
    environment["TERM"] = "dumb";
    shell = start(GetParam().commandLine, Program::Screen::terminal);
    shell->type(GetParam().setUp + "\r");
    shell->expect("ready> ");
  }

  // Types the line, lets it be completed, types the rest, and waits for what the command then says.
  void expectDoes(const std::string& line, const std::string& rest, const std::string& said) {
    shell->type("stashwickctl " + line + "\t" + rest + "\r");
    shell->expect(said);
    shell->expect("ready> ");
  }

  std::unique_ptr<Program> shell;
};

TEST_P(Completion, knowsCommandsAndOptions) {
  expectDoes("ver", "--all", "MY STICK/1: sound");
  expectDoes("verify --al", "", "MY STICK/1: sound");
}

TEST_P(Completion, knowsBackupsWhoseNamesAreToBeQuoted) {
  expectDoes("files MY", "1", "notes.txt");
  expectDoes("files MY\\ S", "1", "notes.txt");
  expectDoes("files \"MY S", "1\"", "notes.txt");
}

TEST_P(Completion, knowsBackupsWhoseNamesHaveColons) {
  expectDoes("files A:B/l", "", "notes.txt");
  expectDoes("files \"A:B/l", "", "notes.txt");
}

TEST_P(Completion, knowsFoldersWhereNothingElseIsWanted) {
  expectDoes("diff A:B/1 ./A", "", "is as it was backed up");
  expectDoes("extract A:B/1 --to=ho", "out", "extracted to home/out");
  expectDoes("extract A:B/1 --to ho", "again", "extracted to home/again");
}

INSTANTIATE_TEST_SUITE_P(Shells, Completion, testing::ValuesIn(kShells),
                         [](const auto& shell) { return shell.param.name; });

}  // namespace
