#include "base/file_url.h"

#include <gtest/gtest.h>

namespace base {
namespace {

TEST(FileURL, encodesAllButUnreservedBytes) {
  EXPECT_EQ((FileURL{"/Volumes/STICK/a b", false}.absoluteString()), "file:///Volumes/STICK/a%20b");
  EXPECT_EQ((FileURL{"/50%?#[]\"<>\\^`{|};\n", false}.absoluteString()),
            "file:///50%25%3F%23%5B%5D%22%3C%3E%5C%5E%60%7B%7C%7D%3B%0A");
  EXPECT_EQ((FileURL{"/é\xFF", false}.absoluteString()), "file:///%C3%A9%FF");
}

TEST(FileURL, showsAFolderByATrailingSlash) {
  EXPECT_EQ((FileURL{"/Volumes/STICK", true}.absoluteString()), "file:///Volumes/STICK/");
  EXPECT_EQ((FileURL{"/", true}.absoluteString()), "file:///");
}

TEST(FileURL, comesBackFromItsText) {
  std::string everyByte = "/";
  for (int byte = 1; byte < 256; ++byte) everyByte += static_cast<char>(byte);
  for (const FileURL& url :
       {FileURL{everyByte, false}, FileURL{everyByte, true}, FileURL{"/", true}, FileURL{"/a", false}})
    EXPECT_EQ(FileURL::fromAbsoluteString(url.absoluteString()), url);
}

TEST(FileURL, isReadWithTheLocalHostsName) {
  EXPECT_EQ(FileURL::fromAbsoluteString("file://localhost/Volumes/a%2fb/"), (FileURL{"/Volumes/a/b", true}));
}

TEST(FileURL, refusesWhatIsNoFileOfThisMachine) {
  for (const char* text :
       {"", "file:", "file://", "http://example.org/", "file://elsewhere/a", "/Volumes/STICK"})
    EXPECT_EQ(FileURL::fromAbsoluteString(text), std::nullopt) << text;
}

TEST(FileURL, readsAFolderWithSeveralSlashesAtItsEndAsOneWithOne) {
  for (const char* text : {"file:///a//", "file:///a/%2F", "file:///a%2f/"})
    EXPECT_EQ(FileURL::fromAbsoluteString(text), (FileURL{"/a", true})) << text;
  EXPECT_EQ(FileURL::fromAbsoluteString("file:////"), (FileURL{"/", true}));
}

TEST(FileURL, refusesBadPercentEncoding) {
  for (const char* text :
       {"file:///%zz", "file:///%", "file:///%4", "file:///a%g0", "file:///%0g", "file:///%00"})
    EXPECT_EQ(FileURL::fromAbsoluteString(text), std::nullopt) << text;
}

TEST(FileURL, refusesANulByte) {
  EXPECT_EQ(FileURL::fromAbsoluteString(std::string_view("file:///a\0b", 11)), std::nullopt);
}

TEST(FileURL, namesItsLastPathComponent) {
  EXPECT_EQ((FileURL{"/Volumes/STICK/a b", true}.lastPathComponent()), "a b");
  EXPECT_EQ((FileURL{"/", true}.lastPathComponent()), "/");
}

}  // namespace
}  // namespace base
