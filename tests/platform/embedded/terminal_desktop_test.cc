#include "platform/embedded/terminal_desktop.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "tests/platform/posix/recording_log.h"
#include "tests/platform/posix/temporary_folder.h"

namespace platform::embedded {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct Pipe {
  explicit Pipe(int flags) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), flags), 0);
    read = posix::FileDescriptor(ends[0]);
    write = posix::FileDescriptor(ends[1]);
  }
  posix::FileDescriptor read;
  posix::FileDescriptor write;
};

class TerminalDesktopTest : public testing::Test {
 protected:
  TerminalDesktop& desktop(TerminalDesktop::Options options) {
    options.input = input.read.get();
    options.output = output.write.get();
    desktop_ = std::make_unique<TerminalDesktop>(loop, log, options, [this] { loop.stop(); });
    return *desktop_;
  }
  TerminalDesktop& interactive() { return desktop({.isInteractive = true}); }

  void type(std::string_view keys) const {
    ASSERT_EQ(::write(input.write.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  std::string screen() const {
    std::string shown;
    std::array<char, 4096> buffer;
    for (ssize_t size; (size = ::read(output.read.get(), buffer.data(), buffer.size())) > 0;) {
      shown.append(buffer.data(), static_cast<std::size_t>(size));
    }
    return shown;
  }
  static ports::Alert question() {
    return {.icon = nullptr,
            .messageText = "Backup \"STICK\"?",
            .informativeText = "It takes 1 GB.",
            .buttons = {"Backup", "Later", "Ignore Volume"},
            .showsSuppressionButton = true,
            .suppressionTitle = "Automatically",
            .suppressed = false};
  }
  int codeOf(const std::string& keys) {
    auto& asked = desktop_ ? *desktop_ : interactive();
    type(keys);
    return asked.runModal(question()).returnCode;
  }
  static std::shared_ptr<ports::Menu> menuOf(const std::vector<std::string>& titles) {
    auto menu = std::make_shared<ports::Menu>();
    for (const auto& title : titles) menu->items.push_back(std::make_shared<ports::MenuItem>(title));
    auto quit = std::make_shared<ports::MenuItem>("Quit", ports::kTerminateAction);
    quit->target = ports::MenuItem::Target::application;
    menu->items.push_back(quit);
    return menu;
  }
  void settle() {
    bool ran = false;
    loop.post([&] { ran = true; });
    loop.runUntil([&] { return ran; });
  }

  posix::MainLoop loop;
  RecordingLog log;
  Pipe input{O_CLOEXEC};
  Pipe output{O_CLOEXEC | O_NONBLOCK};
  std::unique_ptr<TerminalDesktop> desktop_;
};

TEST_F(TerminalDesktopTest, asksWithNumbersAndACheckBox) {
  codeOf("2\n");
  EXPECT_EQ(screen(), R"(
Backup "STICK"?
It takes 1 GB.

  1) Backup
  2) Later
  3) Ignore Volume
  4) [ ] Automatically
Type a number or a first letter and press Enter; Enter alone means "Backup".
)");
}

TEST_F(TerminalDesktopTest, takesNumbersLettersAndTheEmptyLineForTheDefault) {
  EXPECT_EQ(codeOf("\n"), 1000);
  EXPECT_EQ(codeOf("1\n"), 1000);
  EXPECT_EQ(codeOf(" 2 \r\n"), 1001);
  EXPECT_EQ(codeOf("l\n"), 1001);
  EXPECT_EQ(codeOf("I\n"), 1002);
}

TEST_F(TerminalDesktopTest, asksAgainAfterWhatIsNoAnswer) {
  EXPECT_EQ(codeOf("0\n5\nx\nbackup\n3\n"), 1002);
  EXPECT_THAT(screen(), HasSubstr("\"backup\" is none of the answers.\n"));
}

TEST_F(TerminalDesktopTest, togglesTheCheckBoxAndShowsIt) {
  auto& asked = interactive();
  type("4\n4\n4\n1\n");
  EXPECT_TRUE(asked.runModal(question()).suppressed);
  EXPECT_THAT(screen(), testing::EndsWith("  4) [x] Automatically\n  4) [ ] Automatically\n"
                                          "  4) [x] Automatically\n"));
}

TEST_F(TerminalDesktopTest, offersNoLettersThatAreNotAllDifferent) {
  auto alert = question();
  alert.buttons = {"Sichern", "Später", "Ignorieren"};
  auto& asked = interactive();
  type("s\n2\n");
  EXPECT_EQ(asked.runModal(alert).returnCode, 1001);
  EXPECT_THAT(screen(), HasSubstr("Type a number and press Enter; Enter alone means \"Sichern\"."));
}

TEST_F(TerminalDesktopTest, endsAnAlertWithoutAnAnswerWhenTheInputEnds) {
  auto& asked = interactive();
  input.write.reset();
  EXPECT_EQ(asked.runModal(question()).returnCode, TerminalDesktop::kAlertAborted);
  EXPECT_EQ(asked.runModal(question()).returnCode, TerminalDesktop::kAlertAborted);
}

TEST_F(TerminalDesktopTest, quitsWhenTheInputEnds) {
  interactive();
  input.write.reset();
  EXPECT_EQ(loop.run(), 0);
}

TEST_F(TerminalDesktopTest, keepsARecordOfAnswers) {
  auto& asked = interactive();
  type("4\n1\n2\n");
  asked.runModal(question());
  asked.runModal(question());
  ASSERT_EQ(asked.answeredAlerts().size(), 2U);
  EXPECT_EQ(asked.answeredAlerts()[0].messageText, "Backup \"STICK\"?");
  EXPECT_EQ(asked.answeredAlerts()[0].answer.returnCode, 1000);
  EXPECT_TRUE(asked.answeredAlerts()[0].answer.suppressed);
  EXPECT_EQ(asked.answeredAlerts()[1].answer.returnCode, 1001);
}

TEST_F(TerminalDesktopTest, answersAutomaticallyAndSaysSo) {
  auto& asked = desktop({.automaticAnswer = 0, .automaticallySuppresses = true});
  const auto answer = asked.runModal(question());
  EXPECT_EQ(answer.returnCode, 1000);
  EXPECT_TRUE(answer.suppressed);
  EXPECT_EQ(screen(), "Backup \"STICK\"? It takes 1 GB.\n-> Backup [x] Automatically\n");
}

TEST_F(TerminalDesktopTest, asksNobodyOnATerminalEitherWhenThereIsAnAutomaticAnswer) {
  auto& asked = desktop({.isInteractive = true, .automaticAnswer = 1});
  EXPECT_EQ(asked.runModal(question()).returnCode, 1001);
  asked.runCriticalAlertPanel("Backup Failed", "reason", "OK");
  EXPECT_THAT(screen(), HasSubstr("Backup Failed\nreason\n"));
}

TEST_F(TerminalDesktopTest, answersNoAlertThatHasNoSuchButton) {
  auto alert = question();
  alert.buttons = {"OK"};
  EXPECT_EQ(desktop({.automaticAnswer = 2}).runModal(alert).returnCode, TerminalDesktop::kAlertAborted);
}

TEST_F(TerminalDesktopTest, showsNoMenuAndRingsNoBellWhereNobodyIs) {
  auto& quiet = desktop({.automaticAnswer = 1});
  const auto status = quiet.createStatusItem(ports::kSquareStatusItemLength);
  status->setMenu(menuOf({"Title"}));
  quiet.playSound("Alert.wav");
  settle();
  EXPECT_THAT(screen(), IsEmpty());
}

TEST_F(TerminalDesktopTest, showsAMenuOnlyWhenItHasChanged) {
  const auto status = interactive().createStatusItem(ports::kSquareStatusItemLength);
  status->setMenu(menuOf({"One"}));
  status->setMenu(menuOf({"Two"}));
  settle();
  EXPECT_EQ(screen(), "\n     Two\n  1) Quit\nType a number and press Enter.\n");
  status->setMenu(menuOf({"Two"}));
  settle();
  EXPECT_THAT(screen(), IsEmpty());
}

TEST_F(TerminalDesktopTest, showsStatesAndSubmenusAndTheMenuAgainForAnEmptyLine) {
  const auto menu = menuOf({"On", "Mixed", "More"});
  menu->items[0]->state = 1;
  menu->items[1]->state = -1;
  menu->items[2]->submenu = std::make_shared<ports::Menu>();
  menu->items[2]->submenu->items.push_back(std::make_shared<ports::MenuItem>("Inner"));
  const auto status = interactive().createStatusItem(ports::kSquareStatusItemLength);
  status->setMenu(menu);
  settle();
  const std::string shown = "\n     [x] On\n     [-] Mixed\n     More\n        Inner\n  1) Quit\n";
  EXPECT_EQ(screen(), shown + "Type a number and press Enter.\n");
  type("\n1\n");
  loop.run();
  EXPECT_EQ(screen(), shown + "Type a number and press Enter.\n");
}

TEST_F(TerminalDesktopTest, saysThatThereIsNoSuchNumber) {
  const auto status = interactive().createStatusItem(ports::kSquareStatusItemLength);
  status->setMenu(menuOf({"Title"}));
  settle();
  screen();
  type("7\n1\n");
  loop.run();
  EXPECT_EQ(screen(), "There is no number 7 to choose.\n");
}

TEST_F(TerminalDesktopTest, ringsTheBellOnATerminal) {
  interactive().playSound("Alert.wav");
  EXPECT_EQ(screen(), "\a");
}

TEST_F(TerminalDesktopTest, showsNoControlCharactersFromOutside) {
  auto alert = question();
  alert.messageText = "Backup \"\x1B[2J\"?";
  desktop({.automaticAnswer = 1}).runModal(alert);
  type("\n");
  interactive().runCriticalAlertPanel("A\x1B", "B\x1B", "OK\x1B");
  EXPECT_THAT(screen(), Not(HasSubstr("\x1B")));
}

TEST_F(TerminalDesktopTest, startsAProgramFromTheSearchPath) {
  const TemporaryFolder programs;
  const auto program = programs.write("started-program", "#!/bin/sh\nmkdir \"$0.ran\"\n");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  const std::string path = std::string(std::getenv("PATH"));
  ::setenv("PATH", (programs.path() + ":" + path).c_str(), 1);
  const posix::FileDescriptor changes(::inotify_init1(IN_CLOEXEC));
  ASSERT_GE(::inotify_add_watch(changes.get(), programs.path().c_str(), IN_CREATE), 0);
  bool ran = false;
  const auto watch = loop.watch(changes.get(), [&] {
    std::array<char, 4096> buffer;
    ran = ::read(changes.get(), buffer.data(), buffer.size()) > 0;
  });
  desktop({.automaticAnswer = 1}).launchApplication("started-program");
  loop.postAfter(30, [this] { loop.stop(); });
  EXPECT_TRUE(loop.runUntil([&] { return ran; }));
  EXPECT_THAT(log.lines(), IsEmpty());
  ::setenv("PATH", path.c_str(), 1);
}

TEST_F(TerminalDesktopTest, saysThatThereIsNoSuchProgram) {
  auto& launching = desktop({.automaticAnswer = 1});
  for (const char* name : {"no-such-program", "", "/bin/true"}) launching.launchApplication(name);
  EXPECT_THAT(log.lines(),
              ElementsAre(HasSubstr("no-such-program"), HasSubstr("No such file"), HasSubstr("/bin/true")));
}

}  // namespace
}  // namespace platform::embedded
