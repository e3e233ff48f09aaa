// The record of an operation: its fields and its archive.

#include "store/operation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "platform/fake/world.h"
#include "tests/store/archive.h"

namespace tests::store {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class Operation : public ::testing::Test {
 protected:
  static ZQStashwickOperation::Password password(std::string_view text) {
    return std::make_shared<const base::Secret>(text);
  }
  std::shared_ptr<ZQStashwickQueryResult> scan() {
    world.files.write("/Volumes/STICK/a", "aa");
    const auto record = ZQStashwickQueryResult::initWithPath(world.files, {"/Volumes/STICK", true}, true);
    record->waitUntilReady();
    return record;
  }
  static std::shared_ptr<ZQStashwickOperation> decoded(const ZQStashwickOperation& operation) {
    return ZQStashwickOperation::initWithCoder(rootOf(operation));
  }

  platform::fake::World world;
  ZQStashwickOperation operation;
};

TEST_F(Operation, newOneHasAnEmptyPasswordAndNothingElse) {
  ASSERT_NE(operation.password(), nullptr);
  EXPECT_TRUE(operation.password()->empty());
  EXPECT_EQ(operation.format(), std::nullopt);
  EXPECT_EQ(operation.encryption(), std::nullopt);
  EXPECT_EQ(operation.result(), nullptr);
}

TEST_F(Operation, keepsWhatItsSettersAreGiven) {
  const auto record = scan();
  operation.setPassword(password("secret"));
  operation.setFormat("HFS+");
  operation.setEncryption("AES-256");
  operation.setResult(record);
  EXPECT_EQ(operation.password()->reveal(), "secret");
  EXPECT_EQ(operation.format(), "HFS+");
  EXPECT_EQ(operation.encryption(), "AES-256");
  EXPECT_EQ(operation.result(), record);
}

TEST_F(Operation, fieldsMayBeTakenAwayAgain) {
  operation.setFormat("HFS+");
  operation.setEncryption("AES-256");
  operation.setResult(scan());
  operation.setPassword(nullptr);
  operation.setFormat(std::nullopt);
  operation.setEncryption(std::nullopt);
  operation.setResult(nullptr);
  EXPECT_EQ(operation.password(), nullptr);
  EXPECT_EQ(operation.format(), std::nullopt);
  EXPECT_EQ(operation.encryption(), std::nullopt);
  EXPECT_EQ(operation.result(), nullptr);
}

TEST_F(Operation, letsGoOfItsRecordWhenItGoes) {
  std::weak_ptr<ZQStashwickQueryResult> record;
  {
    ZQStashwickOperation shortLived;
    shortLived.setResult(scan());
    record = shortLived.result();
    EXPECT_FALSE(record.expired());
  }
  EXPECT_TRUE(record.expired());
}

TEST_F(Operation, comesBackFromAnArchiveWithFormatEncryptionAndScan) {
  operation.setPassword(password("secret"));
  operation.setFormat("HFS+");
  operation.setEncryption("AES-256");
  operation.setResult(scan());
  const auto back = decoded(operation);
  EXPECT_EQ(back->format(), "HFS+");
  EXPECT_EQ(back->encryption(), "AES-256");
  ASSERT_NE(back->result(), nullptr);
  EXPECT_EQ(*back->result()->files(), *operation.result()->files());
  EXPECT_EQ(back->result()->path(), operation.result()->path());
  EXPECT_EQ(back->result()->bytes(), operation.result()->bytes());
}

TEST_F(Operation, decodedOneHasNoPasswordWhereANewOneHasAnEmptyOne) {
  EXPECT_EQ(decoded(operation)->password(), nullptr);
  operation.setPassword(password("secret"));
  EXPECT_EQ(decoded(operation)->password(), nullptr);
}

TEST_F(Operation, withoutEncryptionComesBackWithoutOne) {
  operation.setFormat("HFS+");
  EXPECT_EQ(decoded(operation)->encryption(), std::nullopt);
}

TEST_F(Operation, emptyEncryptionComesBackEmptyAndNotAbsent) {
  operation.setEncryption("");
  EXPECT_EQ(decoded(operation)->encryption(), "");
}

TEST_F(Operation, withoutFormatAndScanComesBackWithoutThem) {
  const auto back = decoded(operation);
  EXPECT_EQ(back->format(), std::nullopt);
  EXPECT_EQ(back->result(), nullptr);
}

TEST_F(Operation, passwordIsNeverInTheArchive) {
  operation.setFormat("HFS+");
  operation.setResult(scan());
  const auto without = base::archivedDataWithRootObject(operation);
  operation.setPassword(password("correct horse"));
  const auto with = base::archivedDataWithRootObject(operation);
  EXPECT_THAT(textOf(with), Not(HasSubstr("correct horse")));
  EXPECT_THAT(textOf(with), Not(HasSubstr("password")));
  EXPECT_EQ(with, without);
}

TEST_F(Operation, isArchivedUnderItsClassNameWithTheseKeysInThisOrder) {
  EXPECT_EQ(rootOf(operation).className(), "ZQStashwickOperation");
  operation.setPassword(password("x"));
  operation.setFormat("HFS+");
  operation.setEncryption("AES-256");
  operation.setResult(scan());
  EXPECT_THAT(keysOf(operation, "format"), ElementsAre("format", "encryption", "result"));
}

TEST_F(Operation, absentValuesAreArchivedToo) {
  EXPECT_THAT(keysOf(operation, "format"), ElementsAre("format", "encryption", "result"));
}

TEST_F(Operation, mayBeFilledOnOneThreadWhileAnotherReads) {
  operation.setFormat("one");
  std::thread writer([&] {
    for (int i = 0; i < 1000; ++i) {
      operation.setPassword(password(i % 2 == 0 ? "two" : "one"));
      operation.setFormat(i % 2 == 0 ? "two" : "one");
    }
  });
  bool alwaysWhole = true;
  for (int i = 0; i < 1000; ++i) {
    const auto format = operation.format();
    alwaysWhole = alwaysWhole && (format == "one" || format == "two") && operation.password() != nullptr;
  }
  writer.join();
  EXPECT_TRUE(alwaysWhole);
}

}  // namespace
}  // namespace tests::store
