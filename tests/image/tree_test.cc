#include "image/hfs/tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "image/hfs/attributes.h"
#include "image/hfs/original.h"

namespace image::hfs {
namespace {

using testing::ElementsAre;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr Times kTimes{kSecond, kSecond, kSecond, kSecond};

class TreeTest : public testing::Test {
 protected:
  NodeIndex file(NodeIndex folder, std::string_view name, std::uint64_t size = 0) {
    return *tree.add(folder, {.name = name, .mode = mode::kRegular | 0644, .size = size, .times = kTimes});
  }
  NodeIndex folder(NodeIndex parent, std::string_view name) {
    return *tree.add(parent, {.name = name, .mode = mode::kFolder | 0755, .times = kTimes});
  }
  std::vector<std::u16string> names(NodeIndex node) const {
    std::vector<std::u16string> list;
    for (const NodeIndex child : tree.childrenInOrder(node)) list.push_back(tree.storedNameOf(child));
    return list;
  }

  Tree tree{{.name = "Volume", .mode = mode::kFolder | 0755, .times = kTimes}};
};

TEST_F(TreeTest, ordersChildrenWithoutRegardToCase) {
  for (const char* name : {"b", "C", "a"}) file(kRootNode, name);
  tree.finish();
  EXPECT_EQ(tree.order(), NameOrder::caseFolding);
  EXPECT_THAT(names(kRootNode), ElementsAre(u"a", u"b", u"C"));
}

TEST_F(TreeTest, numbersItemsInTheOrderOfTheirArrival) {
  const auto b = file(kRootNode, "b");
  const auto a = file(kRootNode, "a");
  tree.finish();
  EXPECT_EQ(tree.catalogID(kRootNode), 2u);
  EXPECT_EQ(tree.catalogID(b), 16u);
  EXPECT_EQ(tree.catalogID(a), 17u);
  EXPECT_EQ(tree.nextCatalogID(), 18u);
}

TEST_F(TreeTest, becomesCaseSensitiveWhereNamesWouldCollide) {
  for (const char* name : {"readme", "README"}) file(kRootNode, name);
  tree.finish();
  EXPECT_EQ(tree.order(), NameOrder::binary);
  EXPECT_THAT(names(kRootNode), ElementsAre(u"README", u"readme"));
}

TEST_F(TreeTest, becomesCaseSensitiveForANameThatFoldingHides) {
  file(kRootNode, "\u200D");
  tree.finish();
  EXPECT_EQ(tree.order(), NameOrder::binary);
}

TEST_F(TreeTest, keepsBothOfTwoNamesThatDecomposeToTheSame) {
  const auto composed = file(kRootNode, "\u00FC");
  const auto decomposed = file(kRootNode, "u\u0308");
  tree.finish();
  EXPECT_NE(tree.storedNameOf(composed), tree.storedNameOf(decomposed));
  const auto altered = tree.isNameAltered(composed) ? composed : decomposed;
  EXPECT_EQ(originalOf(tree, altered).name, tree.sourceName(altered));
}

TEST_F(TreeTest, escapesNamesThatAreNotUTF8AndKeepsTheirBytes) {
  const auto latin = file(kRootNode, "caf\xE9 %");
  tree.finish();
  EXPECT_EQ(tree.storedNameOf(latin), u"caf%E9%20%25");
  EXPECT_EQ(originalOf(tree, latin).name, "caf\xE9 %");
}

TEST_F(TreeTest, tellsAnEscapedNameFromAFileThatIsCalledSo) {
  file(kRootNode, "caf%E9");
  file(kRootNode, "caf\xE9");
  tree.finish();
  EXPECT_THAT(names(kRootNode), ElementsAre(u"caf%E9", u"caf%E9~2"));
}

TEST_F(TreeTest, movesAFileWithTwoNamesIntoThePrivateFolder) {
  const auto first = file(kRootNode, "first", 5);
  const auto second = *tree.addLink(kRootNode, "second", first);
  tree.finish();
  ASSERT_NE(tree.privateFolder(), kNoNode);
  const NodeIndex indirect = tree.linkGroups().at(0).indirect;
  EXPECT_TRUE(tree.isLink(first));
  EXPECT_TRUE(tree.isLink(second));
  EXPECT_TRUE(tree.isIndirect(indirect));
  EXPECT_EQ(tree.nodes()[indirect].size, 5u);
  EXPECT_EQ(tree.nodes()[first].size, 0u);
  EXPECT_EQ(tree.storedNameOf(indirect), u"iNode19");
  EXPECT_THAT(names(kRootNode),
              ElementsAre(u"first", u"second", std::u16string(u"\0\0\0\0HFS+ Private Data", 21)));
}

TEST_F(TreeTest, givesALinkedFilesAttributesToItsIndirectNode) {
  const auto first = file(kRootNode, "first", 5);
  const std::byte value[] = {std::byte{7}};
  ASSERT_TRUE(tree.addAttribute(first, "note", value));
  ASSERT_TRUE(tree.addLink(kRootNode, "second", first));
  tree.finish();
  EXPECT_EQ(attributeCount(tree, first), 0u);
  EXPECT_EQ(attributeCount(tree, tree.linkGroups().at(0).indirect), 1u);
}

TEST(Original, isNotNeededByAnOrdinaryName) {
  Tree tree({.name = "V", .mode = mode::kFolder, .times = kTimes});
  const auto node = *tree.add(kRootNode, {.name = "Zürich", .mode = mode::kRegular, .times = kTimes});
  tree.finish();
  EXPECT_TRUE(originalOf(tree, node).empty());
}

TEST(Original, keepsDatesBeyondTheVolumesRange) {
  Tree tree({.name = "V", .mode = mode::kFolder, .times = kTimes});
  const Times late{.modified = 2'300'000'000 * kSecond};
  const auto node = *tree.add(kRootNode, {.name = "late", .mode = mode::kRegular, .times = late});
  tree.finish();
  ASSERT_TRUE(originalOf(tree, node).times);
  EXPECT_EQ(originalOf(tree, node).times->modified, late.modified);
}

TEST(Original, readsBackWhatItWrote) {
  const Original original{.name = "caf\xE9", .times = Times{-1, 2, 3, 4}, .device = 0x12345678};
  const auto read = decodeOriginal(encodeOriginal(original));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->name, original.name);
  EXPECT_EQ(read->device, original.device);
  EXPECT_EQ(read->times->created, -1);
  EXPECT_EQ(read->times->accessed, 4);
}

TEST(Original, refusesBytesThatEndTooSoon) {
  auto bytes = encodeOriginal({.name = "name"});
  bytes.pop_back();
  EXPECT_FALSE(decodeOriginal(bytes));
}

TEST(AttributeName, staysTheSameThereAndBack) {
  for (const char* name : {"user.note", "user.user.x", "user.security.x", "security.capability",
                           "system.posix_acl_access", "trusted.overlay", "user.com.example.tag"})
    EXPECT_EQ(attributeName(storedAttributeName(name)), name);
  EXPECT_EQ(storedAttributeName("user.com.example.tag"), "com.example.tag");
}

}  // namespace
}  // namespace image::hfs
