#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "ports/desktop.h"
#include "ports/main_queue.h"

namespace contract {

// Answers every action and remembers which, with the title of the item that sent it.
class RecordingResponder : public ports::MenuResponder {
 public:
  bool validateMenuItem(const ports::MenuItem& item) override { return item.title != "Invalid"; }
  void performMenuAction(const std::string& selector, ports::MenuItem& sender) override {
    performed.push_back(selector + " " + sender.title);
  }
  std::vector<std::string> performed;
};

// What every desktop keeps to. A fixture is made on the main thread and has
//   ports::Desktop& desktop();
//   ports::MainQueue& mainQueue();
//   bool runUntil(condition);           serves the main queue until condition() is true; false after too long
//   using Act = std::function<void()>;  called on the main thread while an alert is open
//   void answerNextAlert(int button, bool suppressed, Act whileOpen);   presses its button number 0, 1, ...
//   void pressTheNextPanelsButton(Act whileOpen);
//   void closeDesktopAtNextAlert();     the desktop goes away while the next alert is open
//   std::string panelText();            what the last critical panel said below its title
//   std::vector<std::string> menuTitles();   of the status item's menu, "-" for separators, submenus' items
//                                            after their own; empty without a status item
//   bool isEnabled(title);              of the first item of that title
//   void choose(title);                 clicks an enabled item
//   bool terminateRequested();
template <class Fixture>
class DesktopContract : public testing::Test {
 protected:
  static std::shared_ptr<ports::MenuItem> item(std::string title, std::string action = {}) {
    return std::make_shared<ports::MenuItem>(std::move(title), std::move(action));
  }
  static std::shared_ptr<ports::MenuItem> separator() {
    auto line = item("");
    line->isSeparator = true;
    return line;
  }
  static std::shared_ptr<ports::MenuItem> quitItem() {
    auto quit = item("Quit", ports::kTerminateAction);
    quit->target = ports::MenuItem::Target::application;
    return quit;
  }
  static std::shared_ptr<ports::MenuItem> itemWithSubmenu() {
    auto above = item("More");
    above->submenu = std::make_shared<ports::Menu>(ports::Menu{{item("Inner", "inner:")}});
    return above;
  }
  static std::shared_ptr<const ports::Menu> menu() {
    return std::make_shared<ports::Menu>(
        ports::Menu{{item("Title"), separator(), itemWithSubmenu(), item("Act", "act:"),
                     item("Invalid", "act:"), quitItem()}});
  }
  static ports::Alert alert() {
    return {.icon = nullptr,
            .messageText = "Backup \"STICK\"?",
            .informativeText = "It takes 1 GB.",
            .buttons = {"Backup", "Later", "Ignore Volume"},
            .showsSuppressionButton = true,
            .suppressionTitle = "Automatically",
            .suppressed = false};
  }
  std::unique_ptr<ports::StatusItem> showMenu() {
    auto status = fixture.desktop().createStatusItem(ports::kSquareStatusItemLength);
    status->setImage("Icon_StatusBar");
    status->setHighlightMode(true);
    status->setMenu(menu());
    return status;
  }

  RecordingResponder responder;
  Fixture fixture;
};
TYPED_TEST_SUITE_P(DesktopContract);

TYPED_TEST_P(DesktopContract, showsAMenu) {
  const auto status = this->showMenu();
  EXPECT_THAT(this->fixture.menuTitles(),
              testing::ElementsAre("Title", "-", "More", "Inner", "Act", "Invalid", "Quit"));
}

TYPED_TEST_P(DesktopContract, replacesAMenu) {
  const auto status = this->showMenu();
  status->setMenu(std::make_shared<ports::Menu>(ports::Menu{{this->item("Only")}}));
  EXPECT_THAT(this->fixture.menuTitles(), testing::ElementsAre("Only"));
}

TYPED_TEST_P(DesktopContract, showsNoMenuOnceTheStatusItemIsGone) {
  this->showMenu().reset();
  EXPECT_THAT(this->fixture.menuTitles(), testing::IsEmpty());
}

TYPED_TEST_P(DesktopContract, enablesItemsWithASubmenuOrAValidatedAction) {
  this->fixture.desktop().setMenuResponder(&this->responder);
  const auto status = this->showMenu();
  for (const char* title : {"More", "Inner", "Act", "Quit"})
    EXPECT_TRUE(this->fixture.isEnabled(title)) << title;
  for (const char* title : {"Title", "Invalid"}) EXPECT_FALSE(this->fixture.isEnabled(title)) << title;
  this->fixture.desktop().setMenuResponder(nullptr);
}

TYPED_TEST_P(DesktopContract, asksNoResponderForTheApplicationsOwnAction) {
  const auto status = this->showMenu();
  EXPECT_TRUE(this->fixture.isEnabled("Quit"));
  EXPECT_TRUE(this->fixture.isEnabled("More"));
  EXPECT_FALSE(this->fixture.isEnabled("Act"));
  this->fixture.choose("Quit");
  EXPECT_TRUE(this->fixture.terminateRequested());
}

TYPED_TEST_P(DesktopContract, performsTheActionOfTheChosenItem) {
  this->fixture.desktop().setMenuResponder(&this->responder);
  const auto status = this->showMenu();
  this->fixture.choose("Inner");
  this->fixture.choose("Act");
  EXPECT_THAT(this->responder.performed, testing::ElementsAre("inner: Inner", "act: Act"));
  EXPECT_FALSE(this->fixture.terminateRequested());
  this->fixture.desktop().setMenuResponder(nullptr);
}

TYPED_TEST_P(DesktopContract, returnsTheCodeOfTheButton) {
  for (const int button : {0, 1, 2}) {
    this->fixture.answerNextAlert(button, false, {});
    EXPECT_EQ(this->fixture.desktop().runModal(this->alert()).returnCode,
              ports::kAlertFirstButtonReturn + button);
  }
}

TYPED_TEST_P(DesktopContract, returnsTheCheckBox) {
  for (const bool suppressed : {true, false}) {
    this->fixture.answerNextAlert(0, suppressed, {});
    EXPECT_EQ(this->fixture.desktop().runModal(this->alert()).suppressed, suppressed);
  }
}

TYPED_TEST_P(DesktopContract, holdsTheMainQueueUpWhileAnAlertIsOpen) {
  bool ranInside = false;
  bool ran = false;
  bool open = true;
  this->fixture.answerNextAlert(1, false, [&] {
    for (const double delay : {0.0, 0.001}) {
      this->fixture.mainQueue().postAfter(delay, [&] { ranInside = ranInside || open; });
    }
    this->fixture.mainQueue().post([&] {
      ranInside = ranInside || open;
      ran = true;
    });
  });
  this->fixture.desktop().runModal(this->alert());
  open = false;
  EXPECT_TRUE(this->fixture.runUntil([&] { return ran; }));
  EXPECT_FALSE(ranInside);
}

TYPED_TEST_P(DesktopContract, answersWithNoButtonsCodeWhenItIsClosed) {
  this->fixture.closeDesktopAtNextAlert();
  const int code = this->fixture.desktop().runModal(this->alert()).returnCode;
  EXPECT_TRUE(code < ports::kAlertFirstButtonReturn || code > ports::kAlertThirdButtonReturn) << code;
}

TYPED_TEST_P(DesktopContract, blocksUntilTheCriticalPanelIsAnswered) {
  bool opened = false;
  this->fixture.pressTheNextPanelsButton([&] { opened = true; });
  this->fixture.desktop().runCriticalAlertPanel("Backup Failed", "reason", "OK");
  EXPECT_TRUE(opened);
}

TYPED_TEST_P(DesktopContract, showsTheCriticalPanelsFormatWithoutArguments) {
  this->fixture.pressTheNextPanelsButton({});
  this->fixture.desktop().runCriticalAlertPanel("Backup Failed", "\"A\"\n\n100%% of %@ & <b>50%</b>", "OK");
  EXPECT_EQ(this->fixture.panelText(), "\"A\"\n\n100% of %@ & <b>50%</b>");
}

TYPED_TEST_P(DesktopContract, hasNoIconForWhatIsNotThere) {
  EXPECT_EQ(this->fixture.desktop().iconForFile("/Volumes/CONTRACT-NOWHERE"), nullptr);
}

REGISTER_TYPED_TEST_SUITE_P(DesktopContract, showsAMenu, replacesAMenu, showsNoMenuOnceTheStatusItemIsGone,
                            enablesItemsWithASubmenuOrAValidatedAction,
                            asksNoResponderForTheApplicationsOwnAction, performsTheActionOfTheChosenItem,
                            returnsTheCodeOfTheButton, returnsTheCheckBox,
                            holdsTheMainQueueUpWhileAnAlertIsOpen, answersWithNoButtonsCodeWhenItIsClosed,
                            blocksUntilTheCriticalPanelIsAnswered,
                            showsTheCriticalPanelsFormatWithoutArguments, hasNoIconForWhatIsNotThere);

}  // namespace contract
