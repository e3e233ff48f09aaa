#include <gtest/gtest.h>

#include "tests/base/manifest.h"
#include "tests/base/python.h"

namespace base {
namespace {

std::string readByGNUstep(const Manifest& manifest) {
  const TemporaryFolder folder;
  writeFile(folder / "a.manifest", archived(manifest));
  return outputOf({MANIFEST_TOOL, "read", (folder / "a.manifest").string()});
}

TEST(ManifestAndGNUstep, readsWhatWeArchive) {
  EXPECT_EQ(readByGNUstep(sampleManifest()),
            "class: ZQStashwickOperation\n"
            "format: HFS+\n"
            "encryption: AES-256\n"
            "result: ZQStashwickQueryResult\n"
            "path: file:///Volumes/STICK/\n"
            "bytes: 5000000000\n"
            "ready: YES\n"
            "ignoresHiddenFiles: YES\n"
            "files are an array: YES\n"
            "file: /Volumes/STICK/a b\n"
            "file: /Volumes/STICK/é\n");
}

TEST(ManifestAndGNUstep, readsWhatIsAbsentAsNil) {
  EXPECT_EQ(readByGNUstep(Manifest{.format = "HFS+", .encryption = {}, .scan = {}}),
            "class: ZQStashwickOperation\nformat: HFS+\nencryption: (nil)\nresult: (nil)\n");
}

TEST(ManifestAndGNUstep, readsALongList) {
  const Manifest manifest = manifestOfFiles(30'000);
  std::string expected;
  for (const FileURL& file : manifest.scan->files) expected += "file: " + file.path + "\n";
  const std::string output = readByGNUstep(manifest);
  EXPECT_TRUE(output.ends_with(expected)) << output.substr(0, 1000);
}

TEST(ManifestAndGNUstep, writesWhatWeRead) {
  const TemporaryFolder folder;
  ASSERT_EQ(outputOf({MANIFEST_TOOL, "write", (folder / "a.manifest").string()}), "");
  const auto root = unarchivedRoot(std::make_shared<MemoryRandomAccess>(contentsOf(folder / "a.manifest")));
  ASSERT_TRUE(root) << root.error().message;
  EXPECT_EQ(root->className(), "ZQStashwickOperation");
  EXPECT_EQ(manifestFrom(*root), sampleManifest());
}

}  // namespace
}  // namespace base
