#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "tests/tools/hdiutil_run.h"
#include "tests/tools/scratch_folder.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

std::string noise(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(count, '\0');
  for (char& b : bytes) b = static_cast<char>(random());
  return bytes;
}

class HdiutilCreate : public testing::Test {
 protected:
  HdiutilCreate() { fs::create_directory(source); }

  std::string write(std::string_view name, std::string_view bytes) {
    return scratch.write("source/" + std::string(name), bytes);
  }

  HdiutilRun create(std::vector<std::string> more = {}) {
    std::vector<std::string> arguments{"create",       "-fs",        "HFS+", "-volname",
                                       "Stick-Backup", "-srcfolder", source};
    arguments.insert(arguments.end(), more.begin(), more.end());
    arguments.push_back(image);
    return runHdiutil(arguments);
  }
  void mustCreate(std::vector<std::string> more = {}) {
    const auto run = create(std::move(more));
    ASSERT_EQ(run.status, 0) << run.error;
  }

  // 7-Zip checks every sum of the image, and says only WARNINGS where one is wrong.
  void expectSoundFor7Zip() {
    const auto test = runShell("7zz t -tdmg " + shellWord(image));
    EXPECT_EQ(test.status, 0) << test.output;
    EXPECT_THAT(test.output,
                AllOf(HasSubstr("Everything is Ok"), Not(HasSubstr("WARNING")), Not(HasSubstr("rror"))));
  }
  // Unpacks with 7-Zip; gives the volume's folder.
  fs::path unpack() {
    const auto unpacked = runShell("7zz x -y -o" + shellWord(scratch / "unpacked") + " " + shellWord(image));
    EXPECT_EQ(unpacked.status, 0) << unpacked.output;
    return fs::path(scratch / "unpacked") / "Stick-Backup";
  }
  // The bare volume, for sleuthkit and libfshfs.
  std::string extractVolume() {
    const std::string volume = scratch / "volume.hfs";
    EXPECT_EQ(runShell("7zz x -y -tdmg -so " + shellWord(image) + " 4.hfs 4.hfsx > " + shellWord(volume) +
                       " 2>/dev/null")
                  .status,
              0);
    return volume;
  }

  std::vector<std::string> leftovers() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(scratch.path()))
      if (entry.path() != source) names.push_back(entry.path().filename());
    return names;
  }

  ScratchFolder scratch;
  std::string source = scratch / "source";
  std::string image = scratch / "out.dmg";
};

// Everything below a folder: relative path to content, with what kind of item it is in front.
std::map<std::string, std::string> contentsOf(const fs::path& folder) {
  std::map<std::string, std::string> contents;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().lexically_relative(folder);
    if (entry.is_symlink())
      contents[name] = "link " + fs::read_symlink(entry.path()).string();
    else if (entry.is_directory())
      contents[name] = "folder";
    else
      contents[name] = "file " + readFile(entry.path());
  }
  return contents;
}

TEST_F(HdiutilCreate, keepsATreeOfAllKinds) {
  write("readme.txt", "hello\n");
  write("empty", "");
  fs::create_directory(source + "/empty folder");
  write("noise", noise(3'000'001, 1));
  write("zeros", std::string(2'500'000, '\0'));
  write("text", std::string(1'500'000, 't'));
  fs::create_symlink("readme.txt", source + "/link");
  fs::create_symlink("sub/missing", source + "/dangling");
  for (const char* name :
       {"日本語.txt", "Слово", "עברית", "العربية", "ไทย", "λογος", "emoji 😀🏽", "tab\there"})
    write("scripts/" + std::string(name), name);
  write(std::string(255, 'n'), "long name");
  for (int i = 0; i < 5000; ++i) write("many/FILE " + std::to_string(i) + ".txt", std::to_string(i * i));
  std::string deep = "deep";
  for (int i = 0; i < 200; ++i) deep += "/d" + std::to_string(i);
  write(deep + "/bottom", "bottom");

  mustCreate();
  expectSoundFor7Zip();
  EXPECT_TRUE(contentsOf(unpack()) == contentsOf(source));
}

TEST_F(HdiutilCreate, decomposesNames) {
  write("Zürich/Å 한글", "composed");
  mustCreate();
  const fs::path volume = unpack();
  EXPECT_EQ(readFile(volume / "Zu\u0308rich" / "A\u030A \u1112\u1161\u11AB\u1100\u1173\u11AF"), "composed");
}

TEST_F(HdiutilCreate, listsTheSameForLibfshfsAndSleuthkit) {
  for (int i = 0; i < 600; ++i) write("folder " + std::to_string(i % 7) + "/file " + std::to_string(i), "x");
  mustCreate();
  const auto volume = extractVolume();
  const auto hierarchy = runShell("fshfsinfo -H " + shellWord(volume));
  EXPECT_EQ(hierarchy.status, 0) << hierarchy.output;
  const auto list = runShell("fls -r -p " + shellWord(volume));
  EXPECT_EQ(list.status, 0) << list.output;
  for (const auto& [name, content] : contentsOf(source)) {
    EXPECT_THAT(hierarchy.output, HasSubstr("/" + name + "\n"));
    EXPECT_THAT(list.output, HasSubstr("\t" + name + "\n"));
  }
}

TEST_F(HdiutilCreate, countsFilesAndFoldersInTheVolumeHeader) {
  write("a/b/c", "c");
  write("d", "d");
  mustCreate();
  const auto stat = runShell("fsstat " + shellWord(extractVolume()));
  EXPECT_EQ(stat.status, 0);
  EXPECT_THAT(stat.output, AllOf(HasSubstr("Volume Name: Stick-Backup"), HasSubstr("Number of files: 2"),
                                 HasSubstr("Number of folders: 2"), HasSubstr("Volume Unmounted Properly")));
}

TEST_F(HdiutilCreate, keepsModesOwnersAndDates) {
  const auto path = write("script", "#!/bin/sh\n");
  ASSERT_EQ(::chmod(path.c_str(), 06751), 0);
  const timespec times[2]{{.tv_sec = 1'000'000'000, .tv_nsec = 5}, {.tv_sec = 1'234'567'890, .tv_nsec = 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  mustCreate();
  const auto stat = runShell("TZ=UTC istat " + shellWord(extractVolume()) + " 16");
  EXPECT_THAT(
      stat.output,
      AllOf(HasSubstr("rwsr-s--x"), HasSubstr("2009-02-13 23:31:30"), HasSubstr("2001-09-09 01:46:40"),
            HasSubstr("uid / gid: " + std::to_string(::getuid()) + " / " + std::to_string(::getgid()))));
}

TEST_F(HdiutilCreate, keepsSpecialFilesWithoutReadingThem) {
  ASSERT_EQ(::mkfifo((source + "/pipe").c_str(), 0600), 0);
  mustCreate();
  EXPECT_THAT(runShell("fls " + shellWord(extractVolume())).output, HasSubstr("p/p 16:\tpipe"));
}

TEST_F(HdiutilCreate, storesAHardLinkedFileOnce) {
  write("first", noise(2'000'000, 5));
  fs::create_directory(source + "/sub");
  fs::create_hard_link(source + "/first", source + "/sub/second");
  mustCreate();
  EXPECT_LT(fs::file_size(image), 2'100'000u);
  expectSoundFor7Zip();
  const auto volume = extractVolume();
  for (const char* name : {"first", "sub/second"}) {
    const auto node =
        runShell("fls -r -p " + shellWord(volume) + " | sed -n 's,^r/r \\([0-9]*\\):\t" + name + "$,\\1,p'");
    ASSERT_THAT(node.output, Not(IsEmpty()));
    EXPECT_EQ(runShell("icat " + shellWord(volume) + " " + node.output).output, readFile(source + "/first"));
  }
}

TEST_F(HdiutilCreate, keepsExtendedAttributesAndAccessControlLists) {
  const auto path = write("file", "content");
  const std::string longValue(3900, 'v');  // longer than what a node of the volume holds
  const auto other = write("sub/other", "content");
  ASSERT_EQ(::setxattr(path.c_str(), "user.note", "remember", 8, 0), 0);
  ASSERT_EQ(::setxattr(path.c_str(), "user.empty", "", 0, 0), 0);
  ASSERT_EQ(::setxattr((source + "/sub").c_str(), "user.folder note", "for a folder", 12, 0), 0);
  ASSERT_EQ(::setxattr(other.c_str(), "user.long", longValue.data(), longValue.size(), 0), 0);
  ASSERT_EQ(runShell("setfacl -m u:12345:r " + shellWord(path)).status, 0);
  mustCreate();
  expectSoundFor7Zip();
  const fs::path volume = unpack();
  EXPECT_EQ(readFile(volume / "file:note"), "remember");
  EXPECT_TRUE(fs::exists(volume / "file:empty"));
  EXPECT_EQ(readFile(volume / "file:system.posix_acl_access").substr(0, 4), std::string("\2\0\0\0", 4));
  EXPECT_EQ(readFile(volume / "sub:folder note"), "for a folder");
  EXPECT_EQ(readFile(volume / "sub/other:long"), longValue);
  EXPECT_EQ(runShell("fshfsinfo -H " + shellWord(extractVolume())).status, 0);
}

TEST_F(HdiutilCreate, losesNoFileWhereNamesCollide) {
  write("readme", "lower");
  write("README", "upper");
  write("\u00FC", "composed");
  write("u\u0308", "decomposed");
  write("caf\xE9", "latin");
  write("sub/x", "x");
  mustCreate();
  expectSoundFor7Zip();
  EXPECT_EQ(runShell("fshfsinfo -H " + shellWord(extractVolume())).status, 0);
  std::multiset<std::string> contents;
  for (const auto& [name, content] : contentsOf(unpack()))
    if (name.find(':') == std::string::npos)
      contents.insert(content);  // 7-Zip's name for an extended attribute
  EXPECT_THAT(contents, testing::UnorderedElementsAre("file composed", "file decomposed", "file latin",
                                                      "file lower", "file upper", "file x", "folder"));
}

TEST_F(HdiutilCreate, storesHolesAsNothingBeyondFourGigabytes) {
  {
    std::ofstream big(write("big", "begin"), std::ios::binary | std::ios::in);
    big.seekp((4ll << 30) + 12345);
    big << "end";
  }
  mustCreate();
  EXPECT_LT(fs::file_size(image), 100'000u);
  const auto end = runShell("7zz x -so " + shellWord(image) + " Stick-Backup/big | tail -c 5 | tr '\\0' 0");
  EXPECT_EQ(end.output, "00end");
}

TEST_F(HdiutilCreate, followsASymbolicLinkToTheSource) {
  write("file", "content");
  fs::create_directory_symlink(source, scratch / "link");
  ASSERT_EQ(runHdiutil({"create", "-srcfolder", scratch / "link", "-volname", "Stick-Backup", image}).status,
            0);
  EXPECT_EQ(readFile(unpack() / "file"), "content");
}

TEST_F(HdiutilCreate, leavesRawWhatIsAskedRaw) {
  write("text", std::string(3'000'000, 't'));
  mustCreate({"-format", "UDRO"});
  EXPECT_GT(fs::file_size(image), 3'000'000u);
  expectSoundFor7Zip();
  EXPECT_TRUE(contentsOf(unpack()) == contentsOf(source));
}

TEST_F(HdiutilCreate, compressesWithBzip2WhenAskedTo) {
  std::string text;
  for (int i = 0; i < 300'000; ++i) text += std::to_string(i) + " ";
  write("text", text);
  write("noise", noise(1'500'000, 4));
  write("zeros", std::string(2'500'000, '\0'));
  mustCreate();
  const auto deflated = fs::file_size(image);
  fs::remove(image);
  mustCreate({"-format", "UDBZ"});
  EXPECT_LT(fs::file_size(image), deflated);
  expectSoundFor7Zip();
  EXPECT_TRUE(contentsOf(unpack()) == contentsOf(source));
  EXPECT_THAT(runHdiutil({"imageinfo", image}).out, HasSubstr("Format: UDBZ\n"));
  EXPECT_THAT(runHdiutil({"verify", image}).error, HasSubstr("is VALID"));
}

TEST_F(HdiutilCreate, makesASmallerImageAtAHigherLevel) {
  std::string text;
  for (unsigned i = 0; i < 300'000; ++i) text += std::to_string(i * 7919 % 65'537) + " ";
  write("text", text);
  std::uintmax_t last = ~std::uintmax_t{0};
  for (const char* level : {"1", "3", "9"}) {
    mustCreate({"-imagekey", std::string("zlib-level=") + level});
    EXPECT_LT(fs::file_size(image), last) << level;
    last = fs::file_size(image);
    expectSoundFor7Zip();
    EXPECT_THAT(runHdiutil({"imageinfo", image}).out, HasSubstr("Format: UDZO\n"));
    fs::remove(image);
  }
}

TEST_F(HdiutilCreate, printsAPropertyListWhoseFirstStringIsThePath) {
  const auto run = create({"-plist"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.out, StartsWith("<?xml"));
  const auto begin = run.out.find("<string>") + 8;
  EXPECT_EQ(run.out.substr(begin, run.out.find("</string>") - begin), image);
  EXPECT_THAT(run.error, IsEmpty());
}

TEST_F(HdiutilCreate, printsThePathWithoutAPropertyList) {
  const auto run = create();
  EXPECT_EQ(run.out, "created: " + image + "\n");
  EXPECT_THAT(run.error, IsEmpty());
}

TEST_F(HdiutilCreate, saysNothingAlarmingWhenItIsVerbose) {
  write("file", "content");
  const auto run = create({"-verbose"});
  EXPECT_THAT(run.out + run.error,
              AllOf(Not(HasSubstr("failed")), Not(HasSubstr("Auth")), HasSubstr("1 files")));
}

TEST_F(HdiutilCreate, takesItsArgumentsInAnyOrder) {
  const auto run =
      runHdiutil({"create", image, "-plist", "-srcfolder", source, "-volname", "X", "-fs", "HFS+"});
  EXPECT_EQ(run.status, 0) << run.error;
}

class HdiutilEncrypted : public HdiutilCreate, public testing::WithParamInterface<std::string> {};

TEST_P(HdiutilEncrypted, opensWithThePasswordInProgramsThatAreNotOurs) {
  write("secret.txt", "attack at dawn");
  write("noise", noise(70'000, 3));
  const std::string password = "pass wörd ✓";
  const auto run = runHdiutil({"create", "-fs", "HFS+", "-volname", "Stick-Backup", "-srcfolder", source,
                               image, "-encryption", GetParam(), "-stdinpass", "-plist"},
                              {.password = password});
  ASSERT_EQ(run.status, 0) << run.error;
  EXPECT_THAT(readFile(image), Not(HasSubstr("koly")));
  scratch.write("password", password);
  const auto opened =
      runShell("python3 " + shellWord(TEST_FOLDER "/decrypt_container.py") + " " + shellWord(image) + " " +
               shellWord(scratch / "password") + " " + shellWord(scratch / "plain.dmg"));
  ASSERT_EQ(opened.status, 0) << opened.output;
  EXPECT_EQ(opened.output, GetParam().substr(4) + "\n");
  image = scratch / "plain.dmg";
  expectSoundFor7Zip();
  EXPECT_TRUE(contentsOf(unpack()) == contentsOf(source));
}

INSTANTIATE_TEST_SUITE_P(Methods, HdiutilEncrypted, testing::Values("AES-128", "AES-256"));

TEST_F(HdiutilCreate, readsThePasswordUpToTheNUL) {
  const auto run = runShell("printf 'secret\\0\\n' | " + shellWord(HDIUTIL_PROGRAM) + " create -srcfolder " +
                            shellWord(source) + " " + shellWord(image) + " -encryption AES-128 -stdinpass");
  ASSERT_EQ(run.status, 0) << run.output;
  scratch.write("password", "secret");
  EXPECT_EQ(runShell("python3 " + shellWord(TEST_FOLDER "/decrypt_container.py") + " " + shellWord(image) +
                     " " + shellWord(scratch / "password") + " /dev/null")
                .output,
            "128\n");
}

class HdiutilKilled : public HdiutilCreate {
 protected:
  // Ends with the signal after so many seconds.
  ProgramResult createUntil(const std::string& signal, double seconds) {
    return runShell("exec timeout --preserve-status -s " + signal + " " + std::to_string(seconds) + " " +
                    shellWord(HDIUTIL_PROGRAM) + " create -srcfolder " + shellWord(source) + " " +
                    shellWord(image));
  }
};

TEST_F(HdiutilKilled, leavesAWholeImageOrNone) {
  for (int i = 0; i < 50; ++i) write("file " + std::to_string(i), noise(40'000, static_cast<unsigned>(i)));
  std::mt19937 random(17);
  int finished = 0;
  for (int i = 0; i < 40; ++i) {
    createUntil("KILL", 0.002 + 0.001 * static_cast<double>(random() % 120));
    if (fs::exists(image)) {
      ++finished;
      EXPECT_EQ(leftovers(), std::vector<std::string>{"out.dmg"});
      EXPECT_EQ(runHdiutil({"verify", image}).status, 0);
      fs::remove(image);
    }
    EXPECT_THAT(leftovers(), IsEmpty());
  }
  EXPECT_LT(finished, 40);
}

TEST_F(HdiutilKilled, cleansUpAndSaysSoWhenItIsAskedToStop) {
  fs::resize_file(write("hole", ""), 8ll << 40);
  for (const char* signal : {"TERM", "INT"}) {
    const auto run = createUntil(signal, 0.3);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "hdiutil: create failed - it was interrupted\n");
    EXPECT_THAT(leftovers(), IsEmpty());
  }
}

class HdiutilRefusal : public HdiutilCreate {
 protected:
  void expectRefused(const HdiutilRun& run, const std::string& reason,
                     const std::vector<std::string>& left = {}) {
    EXPECT_NE(run.status, 0);
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_THAT(run.error, AllOf(HasSubstr("hdiutil: create failed - "), HasSubstr(reason)));
    EXPECT_EQ(leftovers(), left);
  }
};

TEST_F(HdiutilRefusal, leavesAnExistingFileAlone) {
  scratch.write("out.dmg", "precious");
  expectRefused(create(), image + ": it exists already", {"out.dmg"});
  EXPECT_EQ(readFile(image), "precious");
}

TEST_F(HdiutilRefusal, namesASourceThatIsNotThere) {
  fs::remove(source);
  expectRefused(create(), source + ": No such file or directory");
}

TEST_F(HdiutilRefusal, namesADestinationThatIsNotThere) {
  image = scratch / "nowhere/out.dmg";
  expectRefused(create(), scratch / "nowhere: No such file or directory");
}

TEST_F(HdiutilRefusal, knowsOnlyItsOwnEncryptionMethods) {
  for (const char* method : {"", "ROT13"})
    expectRefused(create({"-encryption", method, "-stdinpass"}), "unknown encryption method");
}

TEST_F(HdiutilRefusal, encryptsOnlyWithAPassword) {
  expectRefused(create({"-encryption", "AES-128"}), "needs -stdinpass");
  expectRefused(create({"-encryption", "AES-128", "-stdinpass"}), "password on standard input is empty");
}

TEST_F(HdiutilRefusal, answersWrongArgumentsWithStatus64) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"create"},
        {"create", "-srcfolder", source},
        {"create", image},
        {"create", "-srcfolder"},
        {"create", "-what", image},
        {"create", "-srcfolder", source, "-fs", "FAT32", image},
        {"create", "-srcfolder", source, "-format", "UFBI", image},
        {"create", "-srcfolder", source, "-imagekey", "zlib-level=0", image},
        {"create", "-srcfolder", source, "-imagekey", "zlib-level=10", image},
        {"create", "-srcfolder", source, "-imagekey", "diskimage-class=x", image},
        {"create", "-srcfolder", source, "-format", "UDBZ", "-imagekey", "zlib-level=9", image}}) {
    const auto run = runHdiutil(arguments);
    EXPECT_EQ(run.status, 64);
    EXPECT_THAT(run.error, HasSubstr("hdiutil: create failed - "));
  }
  EXPECT_EQ(runHdiutil({}).status, 64);
  EXPECT_EQ(runHdiutil({"burn"}).status, 64);
  EXPECT_THAT(leftovers(), IsEmpty());
}

TEST_F(HdiutilRefusal, stopsWhenItIsInterrupted) {
  write("file", "content");
  const auto run = runHdiutil({"create", "-srcfolder", source, image}, {.isInterrupted = true});
  expectRefused(run, "interrupted");
}

TEST_F(HdiutilRefusal, failsWhenTheFileMayNotGrow) {
  write("noise", noise(3'000'000, 2));
  const auto run = runShell("ulimit -f 64; exec " + shellWord(HDIUTIL_PROGRAM) + " create -srcfolder " +
                            shellWord(source) + " " + shellWord(image));
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output, "hdiutil: create failed - cannot write " + image + ": File too large\n");
  EXPECT_THAT(leftovers(), IsEmpty());
}

// On a file system of its own of one megabyte.
class HdiutilOnASmallDisk : public HdiutilRefusal {
 protected:
  ProgramResult createThere(const std::string& options = "") {
    fs::create_directories(small);
    return runShell("exec unshare -rm sh -c " +
                    shellWord("mount -t tmpfs -o size=1m tmpfs " + shellWord(small) + " && " +
                              shellWord(HDIUTIL_PROGRAM) + " create -volname V -srcfolder " +
                              shellWord(source) + " " + shellWord(small + "/out.dmg") + options +
                              "; status=$?; ls -A " + shellWord(small) + "; exit $status"));
  }

  std::string small = scratch / "small";
};

TEST_F(HdiutilOnASmallDisk, refusesWhatClearlyDoesNotFitBeforeItWritesIt) {
  write("noise", noise(3'000'000, 2));
  const auto run = createThere(" -verbose");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, AllOf(HasSubstr("hdiutil: create failed - " + small +
                                          ": not enough free space: about 3.0 MB needed, 1.0 MB free\n"),
                                Not(HasSubstr("cannot write")), Not(HasSubstr("out.dmg\n"))));
}

TEST_F(HdiutilOnASmallDisk, takesWhatFitsOnlyCompressed) {
  write("text", std::string(8'000'000, 't'));
  write("noise", noise(500'000, 3));
  EXPECT_EQ(createThere().output, "created: " + small + "/out.dmg\nout.dmg\n");
}

TEST_F(HdiutilOnASmallDisk, failsWhenItIsFullAfterAll) {
  write("noise", noise(1'100'000, 2));
  const auto run = createThere();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output,
            "hdiutil: create failed - cannot write " + small + "/out.dmg: No space left on device\n");
}

// The tool as a user who may not read everything, which is perhaps not even the folder that it was built in.
std::string asNobody(const ScratchFolder& programs) {
  const std::string tool = programs / "hdiutil";
  fs::permissions(programs.path(), fs::perms::all);
  fs::copy_file(HDIUTIL_PROGRAM, tool);
  return (::getuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "") + shellWord(tool);
}

TEST_F(HdiutilCreate, leavesOutWhatMayNotBeReadWhenAskedTo) {
  const auto secret = write("secret", "content");
  const auto closed = write("closed/inside", "content");
  write("open", "content");
  const ScratchFolder programs;
  fs::permissions(scratch.path(), fs::perms::all);
  fs::permissions(secret, fs::perms::none);
  fs::permissions(source + "/closed", fs::perms::none);
  const auto run = runShell(asNobody(programs) + " create -skipunreadable -volname Stick-Backup -srcfolder " +
                            shellWord(source) + " " + shellWord(image));
  fs::permissions(source + "/closed", fs::perms::all);
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output,
              AllOf(HasSubstr("left out: cannot read " + secret + ": Permission denied"),
                    HasSubstr("left out: cannot open the folder " + source + "/closed: Permission denied"),
                    HasSubstr("created: ")));
  EXPECT_EQ(readFile(unpack() / "open"), "content");
}

TEST_F(HdiutilRefusal, namesAFileThatMayNotBeRead) {
  const auto secret = write("secret", "content");
  const ScratchFolder programs;
  fs::permissions(scratch.path(), fs::perms::all);
  fs::permissions(secret, fs::perms::none);
  const auto run =
      runShell(asNobody(programs) + " create -srcfolder " + shellWord(source) + " " + shellWord(image));
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output, "hdiutil: create failed - cannot read " + secret + ": Permission denied\n");
  EXPECT_THAT(leftovers(), IsEmpty());
}

}  // namespace
