#include "store/menu_item.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

TEST(DescribedMenuItem, hasNoDescriptionUntilItIsSet) {
  EXPECT_EQ(ZQMenuItem().description(), std::nullopt);
  EXPECT_EQ(ZQMenuItem("STICK", "deviceClicked:").description(), std::nullopt);
}

TEST(DescribedMenuItem, answersTheDescriptionThatWasSet) {
  ZQMenuItem item("Title");
  item.setDescription("STICK");
  EXPECT_EQ(item.description(), "STICK");
  item.setDescription("");
  EXPECT_EQ(item.description(), "");
  item.setDescription(std::nullopt);
  EXPECT_EQ(item.description(), std::nullopt);
}

TEST(DescribedMenuItem, isAMenuItemWithATitleAndAnAction) {
  const std::shared_ptr<ports::MenuItem> item = std::make_shared<ZQMenuItem>("STICK", "deviceClicked:");
  EXPECT_EQ(item->title, "STICK");
  EXPECT_EQ(item->action, "deviceClicked:");
}

TEST(DescribedMenuItem, mayBeDescribedOnOneThreadWhileAnotherReads) {
  ZQMenuItem item;
  item.setDescription("one");
  std::thread writer([&] {
    for (int i = 0; i < 1000; ++i) item.setDescription(i % 2 == 0 ? "two" : "one");
  });
  bool alwaysWhole = true;
  for (int i = 0; i < 1000; ++i) {
    const auto description = item.description();
    alwaysWhole = alwaysWhole && (description == "one" || description == "two");
  }
  writer.join();
  EXPECT_TRUE(alwaysWhole);
}

}  // namespace
