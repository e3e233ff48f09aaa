#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/xml_property_list.h"
#include "tests/tools/hdiutil_run.h"
#include "tests/tools/scratch_folder.h"

namespace {

namespace fs = std::filesystem;
using base::PropertyList;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class HdiutilContents : public testing::Test {
 protected:
  HdiutilContents() { fs::create_directory(source); }

  void write(std::string_view name, std::string_view bytes) {
    const auto path = scratch.write("source/" + std::string(name), bytes);
    fs::permissions(path, fs::perms(0640));
    setTime(name);
  }
  void setTime(std::string_view name) {
    const timespec times[2]{{.tv_sec = 1'234'567'890, .tv_nsec = 5}, {.tv_sec = 1'234'567'890, .tv_nsec = 5}};
    const std::string path = source + "/" + std::string(name);
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  void create(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"create", "-fs", "HFS+", "-volname", "V", "-srcfolder", source};
    arguments.insert(arguments.end(), more.begin(), more.end());
    arguments.push_back(image);
    const auto run = runHdiutil(arguments, {.password = "secret"});
    ASSERT_EQ(run.status, 0) << run.error;
  }
  static std::string listed(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"list"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const auto run = runHdiutil(all);
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_THAT(run.error, IsEmpty());
    return run.out;
  }
  HdiutilRun extract(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"extract", "-to", target, image});
    return runHdiutil(more);
  }

  ScratchFolder scratch;
  std::string source = scratch / "source";
  std::string target = scratch / "target";
  std::string image = scratch / "out.dmg";
};

TEST_F(HdiutilContents, listsEachPathAfterItsFolder) {
  write("b/c/d", "1");
  write("b-", "2");
  write("a", "3");
  create();
  EXPECT_EQ(listed({image}), "a\nb\nb/c\nb/c/d\nb-\n");
  EXPECT_EQ(listed({image, "b"}), "b/c\nb/c/d\n");
  EXPECT_EQ(listed({image, "/b/c/d"}), "b/c/d\n");
  EXPECT_EQ(listed({image, "/"}), listed({image}));
}

TEST_F(HdiutilContents, listsWhatATerminalCannotBeHarmedBy) {
  write("red\033[31m", "1");
  write("two\nlines", "2");
  write("back\\slash", "3");
  write("bad\xff", "4");
  write("turned\xE2\x80\xAEtxt", "5");  // NOLINT(misc-misleading-bidirectional): what a terminal must not get
  write("größe 日本", "6");
  create();
  EXPECT_THAT(listed({image}), AllOf(HasSubstr("red\\x1b[31m\n"), HasSubstr("two\\x0alines\n"),
                                     HasSubstr("back\\\\slash\n"), HasSubstr("bad\\xff\n"),
                                     HasSubstr("turned\\xe2\\x80\\xaetxt\n"), HasSubstr("größe 日本\n")));
}

TEST_F(HdiutilContents, listsModesOwnersSizesAndDates) {
  write("file", "12345");
  fs::create_symlink("file", source + "/link");
  fs::permissions(source + "/file", fs::perms(06751));
  create();
  const std::string owner = std::to_string(::getuid());
  const std::string list = listed({"-long", image});
  EXPECT_THAT(list, StartsWith("-rwsr-s--x   1 "));
  EXPECT_THAT(list, HasSubstr(" " + owner + " "));
  EXPECT_THAT(list, HasSubstr("           5 2009-02-13T23:31:30Z file\n"));
  EXPECT_THAT(list, HasSubstr("lrwxrwxrwx   1 "));
  EXPECT_THAT(list, EndsWith(" link -> file\n"));
}

TEST_F(HdiutilContents, listsAsPropertyList) {
  write("bad\xff", "1234");
  fs::create_symlink("elsewhere", source + "/link");
  ASSERT_EQ(::mkfifo((source + "/pipe").c_str(), 0600), 0);
  create();
  const auto parsed = base::parseXMLPropertyList(listed({"-plist", image}));
  ASSERT_TRUE(parsed) << parsed.error().message;
  const auto* items = parsed->as<PropertyList::Array>();
  ASSERT_TRUE(items != nullptr && items->size() == 3u);
  const auto& file = *(*items)[0].as<PropertyList::Dictionary>();
  EXPECT_EQ(*base::find<std::string>(file, "path"), "bad\uFFFD");
  EXPECT_EQ(base::find<PropertyList::Data>(file, "path-bytes")->back(), std::byte{0xFF});
  EXPECT_EQ(*base::find<std::string>(file, "kind"), "file");
  EXPECT_EQ(*base::find<std::int64_t>(file, "size"), 4);
  EXPECT_EQ(*base::find<std::int64_t>(file, "mode"), 0640);
  EXPECT_EQ(*base::find<std::int64_t>(file, "user"), ::getuid());
  EXPECT_EQ(*base::find<std::int64_t>(file, "group"), ::getgid());
  EXPECT_EQ(*base::find<std::int64_t>(file, "links"), 1);
  EXPECT_EQ(base::find<base::Date>(file, "modified")->unix(), 1'234'567'890);
  const auto& link = *(*items)[1].as<PropertyList::Dictionary>();
  EXPECT_EQ(*base::find<std::string>(link, "kind"), "link");
  EXPECT_EQ(*base::find<std::string>(link, "target"), "elsewhere");
  EXPECT_EQ(base::find<PropertyList::Data>(link, "path-bytes"), nullptr);
  EXPECT_EQ(*base::find<std::string>(*(*items)[2].as<PropertyList::Dictionary>(), "kind"), "fifo");
}

TEST_F(HdiutilContents, saysWhichPathIsNotThere) {
  write("a", "1");
  create();
  const auto run = runHdiutil({"list", image, "a/b"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.error, "hdiutil: list failed - a/b: there is no such item in the image\n");
}

TEST_F(HdiutilContents, extractsAllOrWhatIsAskedFor) {
  write("a/b", "1");
  write("c", "2");
  create();
  const auto some = extract({"c", "-verbose"});
  EXPECT_EQ(some.status, 0) << some.error;
  EXPECT_EQ(some.error, "hdiutil: extract: 1 files and 0 folders, 1 bytes\n");
  EXPECT_FALSE(fs::exists(target + "/a"));
  const auto again = extract();
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.error, "hdiutil: extract failed - " + target + "/c: it exists already\n");
  EXPECT_FALSE(fs::exists(target + "/a"));
  const auto all = extract({"-overwrite", "-puppetstrings"});
  EXPECT_EQ(all.status, 0) << all.error;
  EXPECT_THAT(all.out, EndsWith("PERCENT:100.000000\n"));
  EXPECT_THAT(all.error, Not(HasSubstr("failed")));
  EXPECT_EQ(readFile(target + "/a/b") + readFile(target + "/c"), "12");
}

TEST_F(HdiutilContents, stopsExtractingWhenInterrupted) {
  write("a", "1");
  create();
  const auto run = runHdiutil({"extract", "-to", target, image}, {.isInterrupted = true});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.error, "hdiutil: extract failed - it was interrupted\n");
}

TEST_F(HdiutilContents, saysWhereItCannotWrite) {
  write("file", "1");
  create();
  target = "/proc/nowhere";
  const auto run = extract();
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.error, StartsWith("hdiutil: extract failed - /proc/nowhere: "));
}

TEST_F(HdiutilContents, extractsFromADamagedImageWhatIsLeft) {
  std::string numbers;
  for (int i = 0; numbers.size() < 3'000'000; ++i) numbers += std::to_string(i) + "\n";
  for (const char* name : {"a", "b", "c"}) write(name, numbers);
  create();
  std::fstream bytes(image, std::ios::in | std::ios::out | std::ios::binary);
  bytes.seekp(static_cast<std::streamoff>(fs::file_size(image) / 2));
  bytes << std::string(64, 'X') << std::flush;
  const auto run = extract();
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(
      run.error,
      AllOf(StartsWith("hdiutil: cannot be read: "),
            EndsWith("hdiutil: extract failed - 1 of what was asked for cannot be read; everything else was "
                     "extracted\n")));
  std::size_t extracted = 0;
  for (const auto& file : fs::directory_iterator(target)) {
    EXPECT_EQ(readFile(file), numbers) << file;
    ++extracted;
  }
  EXPECT_EQ(extracted, 2U);
}

TEST_F(HdiutilContents, needsThePasswordOfAnEncryptedImage) {
  write("a", "1");
  create({"-encryption", "AES-256", "-stdinpass"});
  for (const std::vector<std::string>& verb : {std::vector<std::string>{"list", image},
                                               {"extract", "-to", target, image},
                                               {"compare", image, source}}) {
    const std::string failure = "hdiutil: " + verb[0] + " failed - Authentication error\n";
    auto withPassword = verb;
    withPassword.emplace_back("-stdinpass");
    EXPECT_EQ(runHdiutil(verb).error, failure);
    const auto wrong = runHdiutil(withPassword, {.password = "wrong"});
    EXPECT_EQ(wrong.error, failure);
    EXPECT_EQ(wrong.status, 1);
    EXPECT_FALSE(fs::exists(target));
    const auto right = runHdiutil(withPassword, {.password = "secret"});
    EXPECT_EQ(right.status, 0) << right.error;
    fs::remove_all(target);
  }
}

TEST_F(HdiutilContents, comparesWithAFolder) {
  write("same", "1");
  write("other", "2");
  write("gone", "3");
  create();
  EXPECT_EQ(runHdiutil({"compare", image, source}).status, 0);
  EXPECT_THAT(runHdiutil({"compare", image, source}).out, IsEmpty());
  write("other", "9");
  fs::permissions(source + "/other", fs::perms(0600));
  fs::remove(source + "/gone");
  write("new", "n");
  const auto run = runHdiutil({"compare", "-verbose", image, source});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "- gone\n+ new\nM other (contents, mode)\n");
  EXPECT_EQ(run.error, "hdiutil: compare: 3 differences\n");
  const auto quick = runHdiutil({"compare", "-quick", image, source});
  EXPECT_EQ(quick.out, "- gone\n+ new\nM other (mode)\n");
  const auto absent = runHdiutil({"compare", image, scratch / "nothing"});
  EXPECT_EQ(absent.status, 1);
  EXPECT_THAT(absent.error, StartsWith("hdiutil: compare failed - " + (scratch / "nothing") + ": "));
}

TEST_F(HdiutilContents, comparesAsPropertyList) {
  write("same", "1");
  create();
  write("bad\xff", "2");
  const auto run = runHdiutil({"compare", "-plist", image, source});
  EXPECT_EQ(run.status, 2);
  const auto parsed = base::parseXMLPropertyList(run.out);
  ASSERT_TRUE(parsed) << parsed.error().message;
  const auto* differences = parsed->as<PropertyList::Array>();
  ASSERT_TRUE(differences != nullptr && differences->size() == 1u);
  const auto& difference = *differences->front().as<PropertyList::Dictionary>();
  EXPECT_EQ(*base::find<std::string>(difference, "change"), "added");
  EXPECT_THAT(*base::find<PropertyList::Array>(difference, "what"), IsEmpty());
  EXPECT_EQ(base::find<PropertyList::Data>(difference, "path-bytes")->size(), 4u);
}

TEST_F(HdiutilContents, understandsItsOptionsOnly) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"list"},
                                                    {"list", "a", "b", "c"},
                                                    {"extract", "a"},
                                                    {"extract", "-to", "x"},
                                                    {"compare", "a"},
                                                    {"compare", "-long", "a", "b"}}) {
    const auto run = runHdiutil(arguments);
    EXPECT_EQ(run.status, 64);
    EXPECT_THAT(run.error, HasSubstr("hdiutil: " + arguments[0] + " failed - "));
  }
}

}  // namespace
