#include "image/crypt/container.h"

#include <algorithm>
#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

namespace image::crypt {
namespace {

// Bytes that differ from call to call, the same in every run of the test.
RandomBytes counted() {
  return [random = std::make_shared<std::mt19937>(9)](std::span<std::byte> into) {
    for (auto& b : into) b = static_cast<std::byte>((*random)());
  };
}

ContainerHeader headerFor(const ContainerKeys& keys, Method method, std::string_view password) {
  return {.method = method,
          .dataBytes = 5000,
          .keyEntries = {ContainerHeader::wrap(keys, base::Secret(password), 1000, counted())}};
}

std::vector<std::byte> encoded(const ContainerHeader& header) {
  const std::array<std::byte, 16> identifier{};
  return header.encode(identifier);
}

class Container : public testing::TestWithParam<Method> {
 protected:
  const ContainerKeys keys = ContainerKeys::random(GetParam(), counted());
};

TEST_P(Container, opensWithItsPasswordAndNoOther) {
  const auto header = ContainerHeader::decode(encoded(headerFor(keys, GetParam(), "right")));
  ASSERT_TRUE(header);
  EXPECT_TRUE(header->unwrap(base::Secret("right")));
  EXPECT_FALSE(header->unwrap(base::Secret("wrong")));
  EXPECT_FALSE(header->unwrap(base::Secret("")));
}

TEST_P(Container, decryptsWhatItEncryptedWithTheUnwrappedKeys) {
  std::vector<std::byte> plain(3 * 4096);
  counted()(plain);
  auto blocks = plain;
  keys.encrypt(7, 4096, blocks);
  EXPECT_NE(blocks, plain);
  const auto header = *ContainerHeader::decode(encoded(headerFor(keys, GetParam(), "right")));
  header.unwrap(base::Secret("right"))->decrypt(7, 4096, blocks);
  EXPECT_EQ(blocks, plain);
}

TEST_P(Container, encryptsEqualBlocksDifferently) {
  std::vector<std::byte> blocks(2 * 512);
  keys.encrypt(0, 512, blocks);
  EXPECT_FALSE(std::ranges::equal(std::span(blocks).first(512), std::span(blocks).last(512)));
}

TEST_P(Container, keepsItsFields) {
  const auto bytes = encoded(headerFor(keys, GetParam(), "p"));
  EXPECT_EQ(bytes.size(), ContainerHeader::kDataOffset);
  const auto header = *ContainerHeader::decode(bytes);
  EXPECT_EQ(header.method, GetParam());
  EXPECT_EQ(header.dataBytes, 5000u);
  EXPECT_EQ(header.dataOffset, ContainerHeader::kDataOffset);
  EXPECT_EQ(header.blockBytes, ContainerHeader::kBlockBytes);
}

INSTANTIATE_TEST_SUITE_P(Methods, Container, testing::Values(Method::aes128, Method::aes256));

TEST(ContainerHeader, livesThroughAnyDamage) {
  const auto keys = ContainerKeys::random(Method::aes256, counted());
  const auto whole = encoded(headerFor(keys, Method::aes256, "p"));
  const std::vector<std::byte> head(whole.begin(), whole.begin() + 800);
  std::mt19937 random(3);
  for (int i = 0; i < 20'000; ++i) {
    auto damaged = head;
    for (int flips = 0; flips < 3; ++flips) damaged[random() % 220] = static_cast<std::byte>(random());
    damaged.resize(random() % 4 == 0 ? random() % 800 : 800);
    const auto header = ContainerHeader::decode(damaged);
    EXPECT_TRUE(!header || header->keyEntries.at(0).size() >= 104);
  }
}

TEST(Iterations, areNeverFew) {
  EXPECT_EQ(iterationsFor(0), kLeastIterations);
  EXPECT_GE(iterationsFor(0.5), kLeastIterations);
}

TEST(MethodNamed, knowsTheTwo) {
  EXPECT_EQ(methodNamed("AES-128"), Method::aes128);
  EXPECT_EQ(methodNamed("AES-256"), Method::aes256);
  EXPECT_EQ(methodNamed("aes-256"), std::nullopt);
  EXPECT_EQ(methodNamed(""), std::nullopt);
}

}  // namespace
}  // namespace image::crypt
