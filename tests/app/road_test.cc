// One backup all the way: from the stick's arrival to the date in the menu.

#include "tests/app/agent_test.h"

namespace tests::app {
namespace {

using ::testing::ElementsAre;

using WholeRoad = AgentTest;

TEST_F(WholeRoad, stickArrivesIsAskedAboutBackedUpAndShownWithItsNewDate) {
  ZQAgentAppDelegate::initialize(world.host());
  launch();
  EXPECT_THAT(world.desktop.menuLines(),
              ElementsAre("Last Backup: Never", "-", "Backup ...", "  No Devices Connected",
                          "Automatic Backups", "-", "Quit Stashwick"));

  int arrivals = 0;
  world.notifications.addObserver(ZQRemovableDeviceCenterDeviceMountedNotification, {},
                                  [&](const auto&) { ++arrivals; });
  Lines menuAtTheQuestion;
  world.desktop.whileAlertIsOpen([&] { menuAtTheQuestion = world.desktop.menuLines(); });
  Gate gate(world);
  const auto stick = attachAndBackUpTo(gate, "STICK");
  EXPECT_EQ(arrivals, 1);
  EXPECT_EQ(menuAtTheQuestion.at(3), "  Backup \"STICK\" now ...");
  EXPECT_EQ(world.desktop.alerts().at(0).alert.messageText, "Backup \"STICK\"?");
  EXPECT_EQ(firstLine(), "Backing up \"STICK\" ...");
  EXPECT_EQ(world.disks.claims(stick), 1);

  gate.open();
  finish();
  const std::string folder = std::string(kStore) + "/STICK/";
  EXPECT_TRUE(world.files.fileExists(folder + "Nov 15, 2026, 14:06:13.dmg"));
  const auto manifest = engine::manifestAt(world, folder + "Nov 15, 2026, 14:06:13.manifest");
  ASSERT_NE(manifest, nullptr);
  EXPECT_EQ(manifest->result()->path(), (base::FileURL{"/Volumes/STICK", true}));
  EXPECT_EQ(world.disks.claims(stick), 0);
  EXPECT_EQ(world.log.lines(), Lines{kFinished});
  EXPECT_THAT(world.desktop.menuLines(),
              ElementsAre("Last Backup: Today at 14:06", "-", "Backup ...", "  Backup \"STICK\" now ...",
                          "  Last Backup: Today at 14:06", "Automatic Backups", "-", "Quit Stashwick"));
}

}  // namespace
}  // namespace tests::app
