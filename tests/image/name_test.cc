#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "image/hfs/case_fold.h"
#include "image/hfs/unicode_name.h"

namespace image::hfs {
namespace {

TEST(StoredName, keepsASCII) { EXPECT_EQ(storedName("Photo 1.jpg"), u"Photo 1.jpg"); }

TEST(StoredName, decomposesLettersAndHangul) {
  EXPECT_EQ(storedName("Zürich"), u"Zu\u0308rich");
  EXPECT_EQ(storedName("한"), u"\u1112\u1161\u11ab");
}

TEST(StoredName, leavesTheExcludedRangesComposed) {
  EXPECT_EQ(storedName("\u212B"), u"\u212B");  // ANGSTROM SIGN
  EXPECT_EQ(storedName("\uF900"), u"\uF900");
  EXPECT_EQ(storedName("\U0002F800"), u"\U0002F800");
}

TEST(StoredName, leavesCharactersThatUnicode32DidNotKnowComposed) {
  EXPECT_EQ(storedName("\u1B06"), u"\u1B06");  // Balinese, Unicode 5.0
}

TEST(StoredName, exchangesColonAndSlash) { EXPECT_EQ(storedName("a:b"), u"a/b"); }

TEST(StoredName, holds255UnitsAndNotOneMore) {
  EXPECT_TRUE(storedName(std::string(255, 'n')));
  std::string greek;
  for (int i = 0; i < 86; ++i) greek += "\u0390";  // three units each once decomposed
  EXPECT_FALSE(storedName(greek));
}

TEST(StoredName, refusesBytesThatAreNotUTF8) {
  EXPECT_FALSE(storedName("caf\xE9"));
  EXPECT_FALSE(storedName("\xED\xA0\x80"));
  EXPECT_FALSE(storedName(""));
}

TEST(ComposedFileName, leadsBackFromAStoredName) {
  for (const char* name : {"Zürich", "日本語", "한글", "a:b", "пример", "😀"})
    EXPECT_EQ(composedFileName(*storedName(name)), name);
}

TEST(ComposedFileName, knowsHowLettersWereDecomposedOnce) {
  EXPECT_EQ(composedFileName(u"Ελληνικα\u030D"), "Ελληνικά");
  EXPECT_EQ(composedFileName(u"\u03B9\u0308\u030D"), "\u0390");
  EXPECT_EQ(composedFileName(u"\u0259\u0308 \u0E19\u0E4D\u0E32"), "\u04DB \u0E19\u0E33");
  EXPECT_EQ(composedFileName(u"a\u030D\u0308\u030D"), "a\u030D\u0308\u030D");
}

TEST(FoldCase, knowsTheLettersOfTheFormat) {
  EXPECT_EQ(foldCase(u'A'), u'a');
  EXPECT_EQ(foldCase(u'Æ'), u'æ');
  EXPECT_EQ(foldCase(u'Ø'), u'ø');
  EXPECT_EQ(foldCase(u'Ж'), u'ж');
  EXPECT_EQ(foldCase(u'Ω'), u'ω');
  EXPECT_EQ(foldCase(u'Ａ'), u'ａ');
  EXPECT_EQ(foldCase(0x0181), 0x0253);
  EXPECT_EQ(foldCase(0x01C5), 0x01C6);
}

TEST(FoldCase, leavesLettersThatDecomposeOrCameLater) {
  EXPECT_EQ(foldCase(u'À'), u'À');
  EXPECT_EQ(foldCase(0x0419), 0x0419);
  EXPECT_EQ(foldCase(0x04FA), 0x04FA);  // Unicode 5.0
}

TEST(CompareNames, ignoresCaseAndJoinersWhenFolding) {
  EXPECT_EQ(compareNames(u"README", u"readme", NameOrder::caseFolding), std::strong_ordering::equal);
  EXPECT_EQ(compareNames(u"a\u200Db", u"ab", NameOrder::caseFolding), std::strong_ordering::equal);
  EXPECT_EQ(compareNames(u"a", u"B", NameOrder::caseFolding), std::strong_ordering::less);
  EXPECT_EQ(compareNames(u"a", u"B", NameOrder::binary), std::strong_ordering::greater);
  EXPECT_EQ(compareNames(u"ab", u"abc", NameOrder::caseFolding), std::strong_ordering::less);
}

TEST(CompareNames, sortsNULLastWhenFoldingAndFirstOtherwise) {
  const std::u16string_view hidden(u"\0x", 2);
  EXPECT_EQ(compareNames(hidden, u"z", NameOrder::caseFolding), std::strong_ordering::greater);
  EXPECT_EQ(compareNames(hidden, u"z", NameOrder::binary), std::strong_ordering::less);
}

TEST(FoldedName, orderIsTheOrderOfCompareNames) {
  const std::u16string_view names[] = {u"a", u"A1", u"\u200D", u"b\u200Cc", u"BC", u"Zz", u"é", u"\uFF21"};
  for (const auto a : names)
    for (const auto b : names)
      EXPECT_EQ(foldedName(a) <=> foldedName(b), compareNames(a, b, NameOrder::caseFolding));
}

}  // namespace
}  // namespace image::hfs
