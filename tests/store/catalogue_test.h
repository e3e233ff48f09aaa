#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/fake/world.h"
#include "store/backup_catalogue.h"
#include "store/operation.h"
#include "tests/store/archive.h"

namespace tests::store {

// A catalogue, and images and manifests for it.
class CatalogueTest : public ::testing::Test {
 protected:
  static constexpr const char* kStore = "/Users/tester/Library/Application Support/Stashwick 3";

  static std::string folderOf(const std::string& volume) { return std::string(kStore) + "/" + volume; }
  static std::string inStick(const std::string& name) { return folderOf("MYSTICK") + "/" + name; }
  static base::Date day(double number) { return {number * 86400}; }

  // An image of the volume MYSTICK, or of a sub-folder of its folder ("sub/x.dmg").
  void writeImage(const std::string& name, base::Date created = day(1),
                  const std::string& contents = "image") {
    world.files.write(inStick(name), contents);
    world.files.setCreationDate(inStick(name), created);
  }
  // A manifest of a volume that holds "a" and "b".
  void writeManifest(const std::string& name, const std::optional<std::string>& encryption = std::nullopt) {
    ZQStashwickOperation operation;
    operation.setFormat("HFS+");
    operation.setEncryption(encryption);
    operation.setResult(scan({"a", "b"}));
    archive(operation, name);
  }
  void archive(const base::Codable& root, const std::string& name) {
    world.files.createDirectory(folderOf("MYSTICK"));
    ASSERT_TRUE(world.archives.archiveRootObject(root, inStick(name)));
  }
  std::shared_ptr<ZQStashwickQueryResult> scan(const std::vector<std::string>& names) {
    world.files.remove("/Volumes/MYSTICK");
    for (const auto& name : names) world.files.write("/Volumes/MYSTICK/" + name, "x");
    auto record = ZQStashwickQueryResult::initWithPath(world.files, {"/Volumes/MYSTICK", true}, true);
    record->waitUntilReady();
    return record;
  }
  void breakManifest(const std::string& name, const std::string& contents) {
    ASSERT_TRUE(world.files.write(inStick(name), contents));
  }

  BackupCatalogue::Instances backups() const { return catalogue.backupsForVolume("MYSTICK"); }
  std::uint64_t count() const { return catalogue.numberOfBackupsForVolume("MYSTICK"); }
  // The one backup of MYSTICK.
  std::shared_ptr<const ZQStashwickInstance> backup() const {
    const auto all = backups();
    EXPECT_EQ(all.size(), 1);
    return all.at(0);
  }
  std::vector<std::string> paths() const {
    std::vector<std::string> paths;
    for (const auto& backup : backups()) paths.push_back(backup->path());
    return paths;
  }
  static std::vector<std::string> filesOf(const ZQStashwickInstance& backup) {
    const auto files = backup.files();
    if (!files) return {"no list"};
    std::vector<std::string> paths;
    for (const auto& file : *files) paths.push_back(file.path);
    return paths;
  }

  platform::fake::World world;
  BackupCatalogue catalogue{world.host()};
};

}  // namespace tests::store
