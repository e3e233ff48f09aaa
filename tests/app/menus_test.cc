// The status item, its menu, the submenu of devices, and what a click does.

#include "store/menu_item.h"
#include "tests/app/agent_test.h"

namespace tests::app {
namespace {

using ::testing::ElementsAre;

using StatusItem = AgentTest;
using StatusMenu = AgentTest;
using DeviceMenu = AgentTest;
using MenuActions = AgentTest;

constexpr const char* kSetting = "ZQCreatesAutomaticBackups";

TEST_F(StatusItem, isSquareHighlightsAndShowsItsIcon) {
  launch();
  const auto bar = world.desktop.statusItem();
  ASSERT_TRUE(bar.has_value());
  EXPECT_EQ(bar->length, -2.0);
  EXPECT_EQ(bar->image, "Icon_StatusBar");
  EXPECT_TRUE(bar->highlights);
  EXPECT_NE(bar->menu, nullptr);
}

TEST_F(StatusMenu, holdsTheseRowsInThisOrder) {
  launch();
  EXPECT_THAT(world.desktop.menuLines(),
              ElementsAre("Last Backup: Never", "-", "Backup ...", "  No Devices Connected",
                          "Automatic Backups", "-", "Quit Stashwick"));
}

TEST_F(StatusMenu, rowsCarryTheseActionsAndTargets) {
  launch();
  const auto items = agent->_statusBarMenu()->items;
  ASSERT_EQ(items.size(), 6);
  const Lines actions = {"", "", "", "_setAutomaticBackupsMenuAction:", "", "terminate:"};
  for (std::size_t i = 0; i < items.size(); ++i) {
    EXPECT_EQ(items[i]->action, actions[i]) << i;
    EXPECT_EQ(items[i]->isSeparator, i == 1 || i == 4) << i;
    EXPECT_EQ(items[i]->target == ports::MenuItem::Target::application, i == 5) << i;
    EXPECT_EQ(items[i]->submenu != nullptr, i == 2) << i;
    EXPECT_EQ(items[i]->state, 0) << i;
    EXPECT_EQ(items[i]->keyEquivalent, "") << i;
  }
}

TEST_F(StatusMenu, rowsWithAnActionOrASubmenuAreEnabledAndTheOthersAreNot) {
  launch();
  Lines enabled;
  const auto menu = agent->_statusBarMenu();
  for (const auto& item : menu->items) {
    if (world.desktop.isEnabled(*item)) enabled.push_back(item->title);
  }
  EXPECT_THAT(enabled, ElementsAre("Backup ...", "Automatic Backups", "Quit Stashwick"));
  EXPECT_FALSE(world.desktop.isEnabled(*world.desktop.item("No Devices Connected")));
}

TEST_F(StatusMenu, deviceRowsAreEnabledAndTheirDatesAreNot) {
  launch();
  attachAndAnswer("STICK", "Later");
  const auto items = agent->_deviceMenu()->items;
  ASSERT_EQ(items.size(), 2);
  EXPECT_TRUE(world.desktop.isEnabled(*items[0]));
  EXPECT_FALSE(world.desktop.isEnabled(*items[1]));
}

TEST_F(StatusMenu, everyItemIsValid) {
  launch();
  EXPECT_TRUE(agent->validateMenuItem(ports::MenuItem()));
  EXPECT_TRUE(agent->validateMenuItem(ports::MenuItem("x", "unknown:")));
}

TEST_F(StatusMenu, showsTheLastBackupOfAllVolumes) {
  storeImage("A", "x", world.clock.now());
  storeImage("B", "x", world.clock.now());
  world.files.setModificationDate(std::string(kStore) + "/A", daysBefore(world.clock.now(), 2));
  world.files.setModificationDate(std::string(kStore) + "/B", daysBefore(world.clock.now(), 1));
  launch();
  EXPECT_EQ(firstLine(), "Last Backup: Yesterday at 14:05");
}

TEST_F(StatusMenu, showsTheRunningBackupInPlaceOfTheLastOne) {
  launch();
  Gate gate(world);
  attachAndBackUpTo(gate, "STICK");
  EXPECT_THAT(world.desktop.menuLines(),
              ElementsAre("Backing up \"STICK\" ...", "-", "Backup ...", "  Backup \"STICK\" now ...",
                          "  Last Backup: Never", "Automatic Backups", "-", "Quit Stashwick"));
  EXPECT_FALSE(world.desktop.isEnabled(*world.desktop.item("Backing up \"STICK\" ...")));
  gate.open();
  finish();
  EXPECT_THAT(firstLine(), ::testing::StartsWith("Last Backup: "));
}

TEST_F(StatusMenu, switchShowsTheSetting) {
  world.defaults.set(true, kSetting);
  launch();
  EXPECT_EQ(world.desktop.item("Automatic Backups")->state, 1);
}

TEST_F(StatusMenu, titlesComeFromTheStringTable) {
  for (const auto& [key, text] : std::vector<std::pair<std::string, std::string>>{
           {"Last Backup: %@", "Letztes Backup: %@"},
           {"Never", "Nie"},
           {"Backup ...", "Sichern ..."},
           {"No Devices Connected", "Kein Gerät"},
           {"Automatic Backups", "Automatisch"},
           {"Quit Stashwick", "Beenden"},
           {"Backup \"%@\" now ...", "\"%@\" jetzt sichern ..."},
           {"Backing up \"%@\" ...", "\"%@\" wird gesichert ..."}}) {
    world.bundle.setLocalizedString(key, text);
  }
  launch();
  EXPECT_THAT(world.desktop.menuLines(), ElementsAre("Letztes Backup: Nie", "-", "Sichern ...",
                                                     "  Kein Gerät", "Automatisch", "-", "Beenden"));
  Gate gate(world);
  attachAndBackUpTo(gate, "STICK");
  EXPECT_EQ(firstLine(), "\"STICK\" wird gesichert ...");
  EXPECT_NE(world.desktop.item("\"STICK\" jetzt sichern ..."), nullptr);
  EXPECT_NE(world.desktop.item("Letztes Backup: Nie"), nullptr);
  gate.open();
  finish();
}

TEST_F(StatusMenu, isBuiltAnewOnEachMountAndUnmount) {
  launch();
  const auto first = world.desktop.statusItem()->menu;
  const auto stick = attachAndAnswer("STICK", "Later");
  const auto second = world.desktop.statusItem()->menu;
  EXPECT_NE(first, second);
  pull(stick);
  EXPECT_NE(world.desktop.statusItem()->menu, second);
}

TEST_F(DeviceMenu, withoutDevicesHoldsOneRowOnly) {
  launch();
  const auto items = agent->_deviceMenu()->items;
  ASSERT_EQ(items.size(), 1);
  EXPECT_EQ(items[0]->title, "No Devices Connected");
  EXPECT_EQ(items[0]->action, "");
}

TEST_F(DeviceMenu, rowOfADeviceCarriesItsNameAndAction) {
  launch();
  attachAndAnswer("STICK", "Later");
  const auto items = agent->_deviceMenu()->items;
  ASSERT_EQ(items.size(), 2);
  EXPECT_EQ(items[0]->title, "Backup \"STICK\" now ...");
  EXPECT_EQ(items[0]->action, "_backupDeviceMenuAction:");
  EXPECT_EQ(items[0]->target, ports::MenuItem::Target::firstResponder);
  EXPECT_EQ(items[0]->keyEquivalent, "");
  const auto described = std::dynamic_pointer_cast<ZQMenuItem>(items[0]);
  ASSERT_NE(described, nullptr);
  EXPECT_EQ(described->description(), "STICK");
  EXPECT_EQ(items[1]->title, "Last Backup: Never");
  EXPECT_EQ(items[1]->action, "");
}

TEST_F(DeviceMenu, showsTheLatestBackupOfEachVolume) {
  storeImage("A", "a new one", daysBefore(world.clock.now(), 1));
  storeImage("A", "an old one", daysBefore(world.clock.now(), 5));
  launch();
  world.desktop.answerNextAlert("Later");
  attach("A");
  world.desktop.answerNextAlert("Later");
  attach("B");
  const auto items = agent->_deviceMenu()->items;
  ASSERT_EQ(items.size(), 5);
  EXPECT_EQ(items[1]->title, "Last Backup: Yesterday at 14:05");
  EXPECT_EQ(items[4]->title, "Last Backup: Never");
}

// "b" a device's row, "l" its date, "-" a separator.
std::string shape(const ports::Menu& menu) {
  std::string shape;
  for (const auto& item : menu.items) {
    shape += item->isSeparator                               ? '-'
             : item->title.starts_with("Backup")             ? 'b'
             : item->title.starts_with("Last Backup: Never") ? 'l'
                                                             : '?';
  }
  return shape;
}

TEST_F(DeviceMenu, separatorsFollowEveryOtherDeviceButTheLast) {
  launch();
  const Lines shapes = {"?", "bl", "bl-bl", "bl-blbl", "bl-blbl-bl", "bl-blbl-blbl"};
  for (std::size_t count = 0; count < shapes.size(); ++count) {
    if (count > 0) attachAndAnswer("STICK" + std::to_string(count), "Later");
    EXPECT_EQ(shape(*agent->_deviceMenu()), shapes[count]) << count << " devices";
  }
}

TEST_F(DeviceMenu, separatorsGoByTheIndexOfTheFirstEqualDevice) {
  launch();
  attachAndAnswer("STICK", "Later");
  attachAndAnswer("STICK", "Later");
  // The second is the last by identity, though it equals the first.
  EXPECT_EQ(shape(*agent->_deviceMenu()), "bl-bl");
  attachAndAnswer("OTHER", "Later");
  EXPECT_EQ(shape(*agent->_deviceMenu()), "bl-bl-bl");
}

TEST_F(MenuActions, deviceRowAsksAboutItsDevice) {
  launch();
  attachAndAnswer("A", "Later");
  attachAndAnswer("B", "Later");
  world.desktop.answerNextAlert("Later");
  world.desktop.click("Backup \"B\" now ...");
  ASSERT_EQ(world.desktop.alerts().size(), 3);
  EXPECT_EQ(world.desktop.alerts()[2].alert.messageText, "Backup \"B\"?");
}

TEST_F(MenuActions, rowsOfTwoVolumesOfOneNameBothAskAboutTheFirst) {
  launch();
  const auto first = world.disks.usbPartition("STICK");
  world.desktop.answerNextAlert("Later");
  attach(first);
  attachAndAnswer("STICK", "Later");
  for (const std::size_t row : {0U, 1U}) {
    world.files.remove(kList);
    world.desktop.answerNextAlert("Ignore Volume");
    world.desktop.click("Backup \"STICK\" now ...", row);
    EXPECT_EQ(list(), (base::PropertyList::Dictionary{{UDID(first), -1}})) << row;
  }
}

TEST_F(MenuActions, rowOfADeviceThatIsGoneDoesNothing) {
  launch();
  const auto stick = attachAndAnswer("STICK", "Later");
  const auto row = world.desktop.item("Backup \"STICK\" now ...");
  pull(stick);
  agent->performMenuAction("_backupDeviceMenuAction:", *row);
  EXPECT_EQ(world.desktop.alerts().size(), 1);
}

TEST_F(MenuActions, rowWithoutADescriptionDoesNothing) {
  launch();
  attachAndAnswer("STICK", "Later");
  ports::MenuItem plain("Backup \"STICK\" now ...", "_backupDeviceMenuAction:");
  ZQMenuItem undescribed("Backup \"STICK\" now ...", "_backupDeviceMenuAction:");
  agent->performMenuAction(plain.action, plain);
  agent->performMenuAction(undescribed.action, undescribed);
  EXPECT_EQ(world.desktop.alerts().size(), 1);
}

TEST_F(MenuActions, switchThatIsOffTurnsTheSettingOnAndKeepsShowingOffUntilTheNextRebuild) {
  launch();
  const auto menu = world.desktop.statusItem()->menu;
  world.desktop.click("Automatic Backups");
  EXPECT_TRUE(agent->_createsAutomaticBackups());
  EXPECT_EQ(world.desktop.statusItem()->menu, menu);
  EXPECT_EQ(world.desktop.item("Automatic Backups")->state, 0);
  attachAndAnswer("STICK", "Later");
  EXPECT_EQ(world.desktop.item("Automatic Backups")->state, 1);
}

TEST_F(MenuActions, secondClickOnTheSwitchBeforeARebuildWritesTheSameValue) {
  launch();
  world.desktop.click("Automatic Backups");
  world.desktop.click("Automatic Backups");
  EXPECT_TRUE(agent->_createsAutomaticBackups());
}

TEST_F(MenuActions, switchThatIsOnTurnsTheSettingOff) {
  world.defaults.set(true, kSetting);
  launch();
  world.desktop.click("Automatic Backups");
  EXPECT_FALSE(agent->_createsAutomaticBackups());
  EXPECT_EQ(world.defaults.userValues(), (base::PropertyList::Dictionary{{kSetting, false}}));
}

TEST_F(MenuActions, mixedSwitchTurnsTheSettingOn) {
  ports::MenuItem mixed;
  mixed.state = -1;
  agent->_setAutomaticBackupsMenuAction(mixed);
  EXPECT_TRUE(agent->_createsAutomaticBackups());
}

TEST_F(MenuActions, quitRowEndsTheApplication) {
  launch();
  world.desktop.click("Quit Stashwick");
  EXPECT_TRUE(world.desktop.terminateRequested());
}

TEST_F(MenuActions, openingLaunchesTheMainApplicationAndNoRowDoesIt) {
  launch();
  attachAndAnswer("STICK", "Later");
  for (const auto& menu : {agent->_statusBarMenu(), agent->_deviceMenu()}) {
    for (const auto& item : menu->items) EXPECT_NE(item->action, "_openStashwick:");
  }
  ports::MenuItem sender;
  agent->performMenuAction("_openStashwick:", sender);
  EXPECT_THAT(world.desktop.launchedApplications(), ElementsAre("Stashwick"));
}

}  // namespace
}  // namespace tests::app
