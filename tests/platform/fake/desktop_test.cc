#include "platform/fake/desktop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/fake/world.h"

namespace platform::fake {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Responder : public ports::MenuResponder {
 public:
  bool validateMenuItem(const ports::MenuItem&) override { return true; }
  void performMenuAction(const std::string&, ports::MenuItem& sender) override { senders.push_back(&sender); }
  std::vector<const ports::MenuItem*> senders;
};

struct FakeDesktop : testing::Test {
  FakeDesktop() {
    world.failure.handleWith([this](const std::string& message) { failures.push_back(message); });
    world.desktop.setMenuResponder(&responder);
  }
  static std::shared_ptr<ports::MenuItem> item(const char* title, const char* action = "") {
    return std::make_shared<ports::MenuItem>(title, action);
  }
  static ports::Alert question() {
    ports::Alert alert;
    alert.messageText = "Backup \"STICK\"?";
    alert.informativeText = "1 GB";
    alert.buttons = {"Backup", "Later", "Ignore Volume"};
    return alert;
  }

  std::vector<std::string> failures;
  Responder responder;
  World world;
};

TEST_F(FakeDesktop, showsTheStatusItemAsData) {
  EXPECT_FALSE(world.desktop.statusItem());
  const auto item = world.desktop.createStatusItem(ports::kSquareStatusItemLength);
  item->setImage("Icon_StatusBar");
  item->setHighlightMode(true);
  const auto shown = world.desktop.statusItem();
  ASSERT_TRUE(shown);
  EXPECT_EQ(shown->length, ports::kSquareStatusItemLength);
  EXPECT_EQ(shown->image, "Icon_StatusBar");
  EXPECT_TRUE(shown->highlights);
  EXPECT_EQ(shown->menu, nullptr);
}

TEST_F(FakeDesktop, writesAMenuDownAsLines) {
  const auto status = world.desktop.createStatusItem(1);
  const auto above = item("Backup ...");
  above->submenu = std::make_shared<ports::Menu>(ports::Menu{{item("No Devices Connected")}});
  const auto line = item("");
  line->isSeparator = true;
  status->setMenu(std::make_shared<ports::Menu>(ports::Menu{{line, above, item("Quit")}}));
  EXPECT_THAT(world.desktop.menuLines(), ElementsAre("-", "Backup ...", "  No Devices Connected", "Quit"));
}

TEST_F(FakeDesktop, clicksTheOneThatIsMeantOfSeveralItems) {
  const auto status = world.desktop.createStatusItem(1);
  const auto first = item("Backup now", "a:");
  const auto second = item("Backup now", "a:");
  status->setMenu(std::make_shared<ports::Menu>(ports::Menu{{item("Backup now"), first, second}}));
  world.desktop.click("Backup now");
  world.desktop.click("Backup now", 1);
  EXPECT_THAT(responder.senders, ElementsAre(first.get(), second.get()));
}

TEST_F(FakeDesktop, keepsAnItemAliveWhileItsActionReplacesTheMenu) {
  class Replacing : public ports::MenuResponder {
   public:
    explicit Replacing(ports::StatusItem& status) : status_(status) {}
    bool validateMenuItem(const ports::MenuItem&) override { return true; }
    void performMenuAction(const std::string&, ports::MenuItem& sender) override {
      status_.setMenu(std::make_shared<ports::Menu>());
      title = sender.title;
    }
    std::string title;

   private:
    ports::StatusItem& status_;
  };
  const auto status = world.desktop.createStatusItem(1);
  Replacing replacing(*status);
  world.desktop.setMenuResponder(&replacing);
  status->setMenu(std::make_shared<ports::Menu>(ports::Menu{{item("Act", "a:")}}));
  world.desktop.click("Act");
  EXPECT_EQ(replacing.title, "Act");
}

TEST_F(FakeDesktop, saysWhichItemCannotBeClicked) {
  const auto status = world.desktop.createStatusItem(1);
  status->setMenu(std::make_shared<ports::Menu>(ports::Menu{{item("Title"), item("Other", "a:")}}));
  world.desktop.click("Title");
  EXPECT_THAT(failures, ElementsAre(AllOf(HasSubstr("\"Title\""), HasSubstr("Other"))));
  EXPECT_THAT(responder.senders, IsEmpty());
}

TEST_F(FakeDesktop, answersAlertsInTheOrderOfTheScript) {
  world.desktop.answerNextAlert("Ignore Volume");
  world.desktop.answerNextAlert("Backup", true);
  EXPECT_EQ(world.desktop.runModal(question()).returnCode, ports::kAlertThirdButtonReturn);
  const auto second = world.desktop.runModal(question());
  EXPECT_EQ(second.returnCode, ports::kAlertFirstButtonReturn);
  EXPECT_TRUE(second.suppressed);
  EXPECT_EQ(world.desktop.alerts().size(), 2U);
}

TEST_F(FakeDesktop, saysWhichAlertIsNotAnswered) {
  world.desktop.runModal(question());
  world.desktop.answerNextAlert("Cancel");
  world.desktop.runModal(question());
  EXPECT_THAT(failures, ElementsAre(HasSubstr("Backup \"STICK\"?"), HasSubstr("[Later]")));
}

TEST_F(FakeDesktop, letsDelayedCallsWaitForTheAlertToClose) {
  bool ran = false;
  bool ranInside = false;
  world.mainQueue.postAfter(30, [&] { ran = true; });
  world.desktop.answerNextAlert("Later");
  world.desktop.whileAlertIsOpen([&] {
    world.letSecondsPass(60);
    ranInside = ran;
  });
  world.desktop.runModal(question());
  EXPECT_FALSE(ranInside);
  world.runMainQueue();
  EXPECT_TRUE(ran);
}

TEST_F(FakeDesktop, tellsFromWhichThreadItWasCalled) {
  std::thread([&] { world.desktop.runCriticalAlertPanel("Title", "50%% %@", "OK"); }).join();
  world.desktop.runCriticalAlertPanel("Title", "text", "OK");
  const auto panels = world.desktop.panels();
  ASSERT_EQ(panels.size(), 2U);
  EXPECT_FALSE(panels[0].onMainThread);
  EXPECT_EQ(panels[0].text, "50% %@");
  EXPECT_EQ(panels[0].button, "OK");
  EXPECT_TRUE(panels[1].onMainThread);
}

TEST_F(FakeDesktop, remembersSoundsApplicationsAndActivations) {
  world.desktop.playSound("Alert.wav");
  world.desktop.launchApplication("Stashwick");
  world.desktop.activateIgnoringOtherApps();
  EXPECT_THAT(world.desktop.soundsPlayed(), ElementsAre("Alert.wav"));
  EXPECT_THAT(world.desktop.launchedApplications(), ElementsAre("Stashwick"));
  EXPECT_EQ(world.desktop.activations(), 1);
}

TEST_F(FakeDesktop, hasAnIconForWhatExists) {
  world.disks.plugUSB("STICK");
  const auto icon = world.desktop.iconForFile("/Volumes/STICK");
  const auto* known = dynamic_cast<const Icon*>(icon.get());
  ASSERT_NE(known, nullptr);
  EXPECT_EQ(known->path, "/Volumes/STICK");
}

}  // namespace
}  // namespace platform::fake
