#include "tests/cli/cli_test.h"

namespace tests::cli {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Listing : public CliTest {};

TEST_F(Listing, numbersBackupsFromTheOldest) {
  store("STICK", "newer", 1);
  store("STICK", "older", 2);
  EXPECT_EQ(ctl({"list"}), Exit::done);
  EXPECT_EQ(out.str(),
            "BACKUP   DATE                    SIZE  FILES  ENCRYPTED\n"
            "STICK/1  2026-11-13 14:05:09  8 bytes      2  \n"
            "STICK/2  2026-11-14 14:05:09  8 bytes      2  \n");
}

TEST_F(Listing, leavesTheHeadOutWhenQuiet) {
  store("STICK", "one", 1);
  EXPECT_EQ(ctl({"list", "--quiet"}), Exit::done);
  EXPECT_EQ(out.str(), "STICK/1  2026-11-14 14:05:09  8 bytes  2  \n");
}

TEST_F(Listing, describesBackupsInJson) {
  storesEncrypted = true;
  const auto image = store("STICK", "one", 1);
  EXPECT_EQ(ctl({"list", "STICK", "--json"}), Exit::done);
  EXPECT_EQ(out.str(),
            "[\n  {\"date\": \"2026-11-14T14:05:09Z\", \"encrypted\": true, \"files\": 2, "
            "\"name\": \"STICK/1\", \"number\": 1, \"path\": \"" +
                image + "\", \"size\": 8, \"volume\": \"STICK\"}\n]\n");
}

TEST_F(Listing, findsNoBackupOfAnUnknownVolumeAndMakesNoFolder) {
  EXPECT_EQ(ctl({"list", "OTHER"}), Exit::notFound);
  EXPECT_EQ(error.str(), "stashwickctl: list failed - there is no backup of \"OTHER\"\n");
  EXPECT_FALSE(world.files.fileExists(world.applicationSupport() + "/Stashwick 3/OTHER"));
}

TEST_F(Listing, saysWhetherImagesAreSound) {
  store("STICK", "one", 1);
  EXPECT_EQ(ctl({"list", "--verify"}), Exit::done);
  EXPECT_THAT(out.str(), HasSubstr("sound"));
  answers["verify"] = "hdiutil: verify failed - chunk 3 is damaged\n";
  EXPECT_EQ(ctl({"list", "--verify"}), Exit::differences);
  EXPECT_THAT(out.str(), HasSubstr("damaged"));
}

TEST_F(Listing, listsAttachedVolumes) {
  store("STICK", "one", 1);
  EXPECT_EQ(ctl({"volumes"}), Exit::done);
  EXPECT_THAT(out.str(),
              AllOf(HasSubstr("STICK"), HasSubstr("2026-11-14 14:05:09"), HasSubstr("/media/pat/STICK")));
}

TEST_F(Listing, namesFilesFromTheManifest) {
  store("STICK", "one", 1);
  EXPECT_EQ(ctl({"files", "STICK/1"}), Exit::done);
  EXPECT_EQ(out.str(), "a\nb\n");
  EXPECT_THAT(world.tools.runs(), IsEmpty());
}

TEST_F(Listing, namesFilesFromTheImageWithoutAManifest) {
  auto manifest = store("STICK", "one", 1);
  manifest.replace(manifest.rfind(".dmg"), 4, ".manifest");
  world.files.remove(manifest);
  EXPECT_EQ(ctl({"files", "STICK/1"}), Exit::done);
  EXPECT_EQ(out.str(), "a\n");
}

TEST_F(Listing, showsSizesAndModesFromTheImage) {
  store("STICK", "one", 1);
  EXPECT_EQ(ctl({"files", "STICK/1", "--long"}), Exit::done);
  EXPECT_THAT(out.str(), HasSubstr("file  rw-r--r--"));
}

TEST_F(Listing, findsBackupsByNumberDateAndTheWordLatest) {
  const auto older = store("STICK", "older", 2);
  const auto newer = store("STICK", "newer", 1);
  for (const auto& [name, image] : std::map<std::string, std::string>{{"STICK/1", older},
                                                                      {"STICK/2", newer},
                                                                      {"STICK/latest", newer},
                                                                      {"STICK/2026-11-13", older},
                                                                      {"STICK/2026-11-14T14:05", newer}}) {
    EXPECT_EQ(ctl({"verify", name}), Exit::done) << name << error.str();
    EXPECT_EQ(world.tools.runs().back().arguments.back(), image);
  }
}

TEST_F(Listing, refusesADateThatIsSeveralBackupsAndNamesThem) {
  store("STICK", "older", 2);
  store("STICK", "newer", 1);
  EXPECT_EQ(ctl({"verify", "STICK/2026-11"}), Exit::usage);
  EXPECT_THAT(error.str(),
              AllOf(HasSubstr("is more than one backup:\n  STICK/1  2026-11-13 14:05:09\n  STICK/2"),
                    HasSubstr("verify failed - ")));
}

TEST_F(Listing, findsNothingUnderOtherNames) {
  store("STICK", "one", 1);
  for (const char* name : {"STICK/2", "STICK/0", "STICK/2025-01-01", "OTHER/1", "STICK/../STICK/1", "x.dmg"})
    EXPECT_EQ(ctl({"verify", name}), Exit::notFound) << name;
}

TEST_F(Listing, tellsDamageFromAWrongPassword) {
  store("STICK", "one", 1);
  answers["verify"] = "hdiutil: verify failed - chunk 3 is damaged\n";
  EXPECT_EQ(ctl({"verify", "--all"}), Exit::differences);
  EXPECT_EQ(error.str(), "stashwickctl: STICK/1: verify failed - chunk 3 is damaged\n");
  answers["verify"] = "hdiutil: verify failed - Authentication error\n";
  terminal.input = "wrong";
  EXPECT_EQ(ctl({"verify", "--all", "--password-stdin"}), Exit::authentication);
}

TEST_F(Listing, doesNotTakeAToolThatCannotBeStartedForDamage) {
  store("STICK", "one", 1);
  world.tools.removeTool(kTool);
  EXPECT_EQ(ctl({"verify", "--all"}), Exit::failed);
}

TEST_F(Listing, saysWhatHasChanged) {
  store("STICK", "one", 1);
  EXPECT_EQ(ctl({"diff", "STICK/1"}), Exit::done);
  differences = {PropertyList::Dictionary{
      {"path", "a"}, {"change", "changed"}, {"what", PropertyList::Array{"contents", "date"}}}};
  EXPECT_EQ(ctl({"diff", "STICK/1"}), Exit::differences);
  EXPECT_THAT(out.str(), HasSubstr("changed  a     contents, date\n"));
  EXPECT_THAT(world.tools.runs().back().arguments, testing::Contains("/Volumes/STICK"));
}

TEST_F(Listing, neverGivesThePasswordAsAnArgument) {
  storesEncrypted = true;
  store("STICK", "one", 1);
  password = "secret";
  terminal.input = "secret";
  EXPECT_EQ(ctl({"verify", "STICK/1", "--password-stdin"}), Exit::done) << error.str();
  const auto run = world.tools.runs().back();
  EXPECT_THAT(run.arguments, Not(testing::Contains(HasSubstr("secret"))));
  EXPECT_EQ(run.standardInput, std::string("secret\0\n", 8));
}

TEST_F(Listing, asksOnTheTerminalOnceTheKeychainsPasswordIsRefused) {
  storesEncrypted = true;
  store("STICK", "one", 1);
  engine::storePassword(world, "old");
  password = "new";
  terminal.passwords = {"new"};
  EXPECT_EQ(ctl({"verify", "STICK/1"}), Exit::done) << error.str();
  EXPECT_THAT(terminal.asked, ElementsAre("Password: "));
}

TEST_F(Listing, needsAPasswordThatNobodyGives) {
  storesEncrypted = true;
  store("STICK", "one", 1);
  EXPECT_EQ(ctl({"extract", "STICK/1", "--to", "/out"}), Exit::authentication);
  EXPECT_THAT(error.str(), HasSubstr("extract failed - Authentication error"));
}

TEST_F(Listing, extractsTheNamedPaths) {
  const auto image = store("STICK", "one", 1);
  EXPECT_EQ(ctl({"extract", "STICK/1", "a", "sub/b", "--to", "/out"}), Exit::done);
  EXPECT_THAT(world.tools.runs().back().arguments,
              ElementsAre("extract", "-to", "/out", image, "a", "sub/b"));
}

TEST_F(Listing, refusesWhatIsNoCommandLine) {
  for (const Strings& arguments : std::vector<Strings>{
           {}, {"nonsense"}, {"files"}, {"list", "--nonsense"}, {"prune", "--keep-last", "x"}, {"verify"}}) {
    EXPECT_EQ(ctl(arguments), Exit::usage);
    EXPECT_THAT(error.str(), Not(IsEmpty()));
  }
}

TEST_F(Listing, completesCommandsOptionsAndBackups) {
  store("STICK", "one", 1);
  const auto completions = [this](Strings words) {
    words.insert(words.begin(), "--complete");
    EXPECT_EQ(ctl(words), Exit::done);
    return out.str();
  };
  EXPECT_EQ(completions({"pru"}), "prune\n");
  EXPECT_EQ(completions({"prune", "--keep"}), "--keep-daily\n--keep-last\n--keep-monthly\n");
  EXPECT_EQ(completions({"files", "ST"}), "STICK/1\nSTICK/latest\n");
  EXPECT_EQ(completions({"verify", "STICK/1", "ST"}), "STICK/1\nSTICK/latest\n");
  EXPECT_EQ(completions({"--quiet", "restore", "STICK/1", "--to", ""}), "STICK\n");
  EXPECT_EQ(completions({"auto", "STICK", "o"}), "off\non\n");
  EXPECT_EQ(completions({"password", "f"}), "forget\n");
  EXPECT_EQ(completions({"extract", "STICK/1", "--to", ""}), "");
}

}  // namespace
}  // namespace tests::cli
