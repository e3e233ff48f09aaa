#include "image/crypt/container.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <string>

#include "base/byte_order.h"

namespace image::crypt {
namespace {

constexpr std::string_view kSignature = "encrcdsa";
constexpr std::string_view kVersion1Signature = "cdsaencr";
constexpr std::size_t kHeaderBytes = 76;
constexpr std::size_t kSlotBytes = 20;
// Each that is tried takes as long as its iterations take.
constexpr std::size_t kMostKeyEntries = 16;
constexpr std::size_t kKeyEntryBytes = 616;
constexpr std::size_t kIVKeyBytes = 20;
constexpr std::size_t kAESBlockBytes = 16;
constexpr std::string_view kWrappedKeyMark{"CKIE\0", 5};
// Numbers of algorithms and modes as the container's headers have them.
constexpr std::uint32_t kAES = 0x80000001;
constexpr std::uint32_t kModeCBC = 5;
constexpr std::uint32_t kHMACSHA1 = 91;
constexpr std::uint32_t kPassphraseEntry = 1;
constexpr std::uint32_t kPBKDF2 = 103;
constexpr std::uint32_t kTripleDES = 17;
constexpr std::uint32_t kPaddingPKCS7 = 7;
constexpr std::uint32_t kModeCBCPadded = 6;
constexpr std::size_t kTripleDESKeyBytes = 24;
constexpr std::size_t kSaltBytes = 20;
constexpr std::size_t kFieldBytes = 32;
constexpr std::size_t kWrapIVBytes = 8;
constexpr std::uint32_t kLeastBlockBytes = 512;
constexpr std::uint32_t kMostBlockBytes = 1 << 20;

// Cryptography that does not work leaves nothing sensible to do: going on would lose or bare the data.
void require(bool done) {
  if (!done) std::abort();
}

struct FreeCipher {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeCipher>;

struct FreeMAC {
  void operator()(EVP_MAC* mac) const { EVP_MAC_free(mac); }
  void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};

const unsigned char* octets(std::string_view bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}
unsigned char* octets(std::span<std::byte> bytes) { return reinterpret_cast<unsigned char*>(bytes.data()); }
const unsigned char* octets(std::span<const std::byte> bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

std::string_view viewOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

base::Secret randomSecret(std::size_t count, const RandomBytes& random) {
  std::array<std::byte, 32> bytes{};
  random(std::span(bytes).first(count));
  base::Secret secret(viewOf(bytes).substr(0, count));
  base::wipeMemory(bytes.data(), bytes.size());
  return secret;
}

// The IVs of a container's blocks, one after the other.
class BlockIVs {
 public:
  explicit BlockIVs(const base::Secret& key) : mac_(EVP_MAC_fetch(nullptr, "HMAC", nullptr)) {
    context_.reset(EVP_MAC_CTX_new(mac_.get()));
    char digest[] = "SHA1";
    const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string("digest", digest, 0),
                                     OSSL_PARAM_construct_end()};
    require(EVP_MAC_init(context_.get(), octets(key.reveal()), key.size(), parameters) == 1);
  }

  std::array<unsigned char, 20> of(std::uint32_t block) {
    std::array<std::byte, 4> number;
    base::storeBigEndian(number.data(), block);
    std::array<unsigned char, 20> digest;
    std::size_t length = 0;
    require(EVP_MAC_init(context_.get(), nullptr, 0, nullptr) == 1 &&
            EVP_MAC_update(context_.get(), octets(std::span<const std::byte>(number)), number.size()) == 1 &&
            EVP_MAC_final(context_.get(), digest.data(), &length, digest.size()) == 1);
    return digest;
  }

 private:
  std::unique_ptr<EVP_MAC, FreeMAC> mac_;
  std::unique_ptr<EVP_MAC_CTX, FreeMAC> context_;
};

enum class Direction : int { decrypt = 0, encrypt = 1 };

void cryptBlocks(const base::Secret& cipherKey, const base::Secret& ivKey, std::uint32_t block,
                 std::size_t blockBytes, std::span<std::byte> blocks, Direction direction) {
  BlockIVs ivs(ivKey);
  const CipherContext context(EVP_CIPHER_CTX_new());
  const EVP_CIPHER* const cipher = cipherKey.size() == 16 ? EVP_aes_128_cbc() : EVP_aes_256_cbc();
  require(EVP_CipherInit_ex(context.get(), cipher, nullptr, octets(cipherKey.reveal()), nullptr,
                            static_cast<int>(direction)) == 1);
  require(EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1);
  for (std::size_t at = 0; at < blocks.size(); at += blockBytes, ++block) {
    const auto part = blocks.subspan(at, blockBytes);
    int made = 0;
    require(EVP_CipherInit_ex(context.get(), nullptr, nullptr, nullptr, ivs.of(block).data(), -1) == 1 &&
            EVP_CipherUpdate(context.get(), octets(part), &made, octets(part),
                             static_cast<int>(part.size())) == 1);
  }
}

base::Secret deriveKey(const base::Secret& password, std::span<const std::byte> salt,
                       std::uint32_t iterations) {
  std::array<std::byte, kTripleDESKeyBytes> key;
  const auto text = password.reveal();
  require(PKCS5_PBKDF2_HMAC(text.data(), static_cast<int>(text.size()), octets(salt),
                            static_cast<int>(salt.size()), static_cast<int>(iterations), EVP_sha1(),
                            static_cast<int>(key.size()), octets(std::span<std::byte>(key))) == 1);
  base::Secret derived(viewOf(key));
  base::wipeMemory(key.data(), key.size());
  return derived;
}

// Three-key 3DES in CBC mode with PKCS padding; empty when the padding is not right.
base::Secret cryptKeys(const base::Secret& key, std::span<const std::byte> iv, std::string_view from,
                       Direction direction) {
  const CipherContext context(EVP_CIPHER_CTX_new());
  require(EVP_CipherInit_ex(context.get(), EVP_des_ede3_cbc(), nullptr, octets(key.reveal()), octets(iv),
                            static_cast<int>(direction)) == 1);
  std::array<std::byte, 128> made;
  int first = 0;
  int last = 0;
  require(EVP_CipherUpdate(context.get(), octets(std::span<std::byte>(made)), &first, octets(from),
                           static_cast<int>(from.size())) == 1);
  const bool whole =
      EVP_CipherFinal_ex(context.get(), octets(std::span<std::byte>(made)) + first, &last) == 1;
  base::Secret result(
      whole ? viewOf(made).substr(0, static_cast<std::size_t>(first) + static_cast<std::size_t>(last))
            : std::string_view());
  base::wipeMemory(made.data(), made.size());
  return result;
}

// A password entry with a derivation that ends this century and wrapped keys that it has room for.
bool isKnownEntry(std::span<const std::byte> bytes) {
  constexpr std::uint32_t kMostIterations = 500'000'000;
  constexpr std::uint32_t kMostWrappedBytes = 96;
  base::ByteReader entry(bytes);
  const auto kdf = entry.get<std::uint32_t>();
  entry.skip(4);
  const auto iterations = entry.get<std::uint32_t>();
  entry.skip(4 + kFieldBytes + 4 + kFieldBytes + 4 * 4);
  const auto wrapped = entry.get<std::uint32_t>();
  return entry.ok() && kdf == kPBKDF2 && iterations != 0 && iterations <= kMostIterations &&
         wrapped <= kMostWrappedBytes && wrapped <= entry.remaining();
}

std::size_t keyBytes(Method method) { return method == Method::aes128 ? 16 : 32; }

// The wrapped bytes of an entry; empty where the password does not open it.
base::Secret unwrapped(std::span<const std::byte> keyEntry, const base::Secret& password) {
  base::ByteReader in(keyEntry);
  in.skip(4 + 4);
  const auto iterations = in.get<std::uint32_t>();
  const auto saltBytes = std::min<std::size_t>(in.get<std::uint32_t>(), kFieldBytes);
  const auto salt = in.take(kFieldBytes).first(saltBytes);
  in.skip(4);
  const auto iv = in.take(kFieldBytes).first(kWrapIVBytes);
  in.skip(4 * 4);
  const auto wrapped = in.take(in.get<std::uint32_t>());
  return cryptKeys(deriveKey(password, salt, iterations), iv, viewOf(wrapped), Direction::decrypt);
}

}  // namespace

std::optional<Method> methodNamed(std::string_view name) {
  if (name == "AES-128") return Method::aes128;
  if (name == "AES-256") return Method::aes256;
  return std::nullopt;
}

std::uint32_t iterationsFor(double seconds) {
  using Clock = std::chrono::steady_clock;
  constexpr std::uint32_t kSample = 20'000;
  const std::array<std::byte, kSaltBytes> salt{};
  const auto begin = Clock::now();
  deriveKey(base::Secret("a password"), salt, kSample);
  const double taken = std::chrono::duration<double>(Clock::now() - begin).count();
  const double most = 50'000'000;
  return static_cast<std::uint32_t>(
      std::clamp(kSample * seconds / std::max(taken, 1e-6), double{kLeastIterations}, most));
}

ContainerKeys ContainerKeys::random(Method method, const RandomBytes& random) {
  return {randomSecret(keyBytes(method), random), randomSecret(kIVKeyBytes, random)};
}

void ContainerKeys::encrypt(std::uint32_t firstBlock, std::size_t blockBytes,
                            std::span<std::byte> blocks) const {
  cryptBlocks(cipherKey_, ivKey_, firstBlock, blockBytes, blocks, Direction::encrypt);
}

void ContainerKeys::decrypt(std::uint32_t firstBlock, std::size_t blockBytes,
                            std::span<std::byte> blocks) const {
  cryptBlocks(cipherKey_, ivKey_, firstBlock, blockBytes, blocks, Direction::decrypt);
}

std::vector<std::byte> ContainerHeader::wrap(const ContainerKeys& keys, const base::Secret& password,
                                             std::uint32_t iterations, const RandomBytes& random) {
  std::array<std::byte, kSaltBytes> salt;
  std::array<std::byte, kWrapIVBytes> iv;
  random(salt);
  random(iv);
  const auto plain = keys.cipherKey_.duplicate().append(keys.ivKey_.reveal()).append(kWrappedKeyMark);
  const auto wrapped =
      cryptKeys(deriveKey(password, salt, iterations), iv, plain.reveal(), Direction::encrypt);
  std::vector<std::byte> entry;
  base::ByteWriter out(entry);
  out.put(kPBKDF2).put(std::uint32_t{0}).put(iterations);
  out.put(std::uint32_t{kSaltBytes}).put(salt).zeros(kFieldBytes - kSaltBytes);
  out.put(std::uint32_t{kWrapIVBytes}).put(iv).zeros(kFieldBytes - kWrapIVBytes);
  out.put(std::uint32_t{kTripleDESKeyBytes * 8}).put(kTripleDES).put(kPaddingPKCS7).put(kModeCBCPadded);
  out.put(static_cast<std::uint32_t>(wrapped.size())).put(std::as_bytes(std::span(wrapped.reveal())));
  out.zeros(kKeyEntryBytes - entry.size());
  return entry;
}

std::optional<ContainerKeys> ContainerHeader::unwrap(const base::Secret& password) const {
  const std::size_t cipherBytes = keyBytes(method);
  for (const auto& entry : keyEntries) {
    const auto plain = unwrapped(entry, password);
    const auto bytes = plain.reveal();
    if (bytes.size() < cipherBytes + kIVKeyBytes + kWrappedKeyMark.size() ||
        !bytes.substr(cipherBytes + kIVKeyBytes).starts_with(kWrappedKeyMark))
      continue;
    return ContainerKeys(base::Secret(bytes.substr(0, cipherBytes)),
                         base::Secret(bytes.substr(cipherBytes, kIVKeyBytes)));
  }
  return std::nullopt;
}

std::vector<std::byte> ContainerHeader::encode(std::span<const std::byte, 16> identifier) const {
  std::vector<std::byte> bytes;
  base::ByteWriter out(bytes);
  out.put(std::as_bytes(std::span(kSignature))).put(std::uint32_t{2}).put(std::uint32_t{kAESBlockBytes});
  out.put(kModeCBC).put(kAES).put(static_cast<std::uint32_t>(keyBytes(method) * 8));
  out.put(kHMACSHA1).put(std::uint32_t{kIVKeyBytes * 8}).put(identifier);
  out.put(blockBytes).put(dataBytes).put(dataOffset).put(static_cast<std::uint32_t>(keyEntries.size()));
  std::uint64_t at = kHeaderBytes + kSlotBytes * keyEntries.size();
  for (const auto& entry : keyEntries) {
    out.put(kPassphraseEntry).put(at).put(std::uint64_t{entry.size()});
    at += entry.size();
  }
  for (const auto& entry : keyEntries) out.put(entry);
  out.zeros(dataOffset - bytes.size());
  return bytes;
}

bool ContainerHeader::isContainer(std::span<const std::byte> bytes) {
  return viewOf(bytes).starts_with(kSignature);
}

bool ContainerHeader::isVersion1(std::span<const std::byte> end) { return viewOf(end) == kVersion1Signature; }

base::Result<ContainerHeader> ContainerHeader::decode(std::span<const std::byte> bytes) {
  const auto unsupported = [](const std::string& what) {
    return base::Error{"an encrypted image " + what + " is not supported"};
  };
  base::ByteReader in(bytes);
  if (!isContainer(bytes)) return base::Error{"not an encrypted image"};
  in.skip(kSignature.size());
  ContainerHeader header;
  if (const auto version = in.get<std::uint32_t>(); version != 2)
    return unsupported("of version " + std::to_string(version));
  in.skip(4 + 4);
  const auto cipher = in.get<std::uint32_t>();
  const auto keyBits = in.get<std::uint32_t>();
  if (cipher != kAES || (keyBits != 128 && keyBits != 256))
    return unsupported("with cipher " + std::to_string(cipher) + " and keys of " + std::to_string(keyBits) +
                       " bits");
  header.method = keyBits == 128 ? Method::aes128 : Method::aes256;
  in.skip(4 + 4 + 16);
  header.blockBytes = in.get<std::uint32_t>();
  header.dataBytes = in.get<std::uint64_t>();
  header.dataOffset = in.get<std::uint64_t>();
  const auto entries = in.get<std::uint32_t>();
  if (!in.ok() || header.dataOffset < kHeaderBytes)
    return base::Error{"the header of the encrypted image is damaged"};
  for (std::uint32_t i = 0; i < entries && in.ok() && header.keyEntries.size() < kMostKeyEntries; ++i) {
    const bool isPassphrase = in.get<std::uint32_t>() == kPassphraseEntry;
    const auto offset = in.get<std::uint64_t>();
    const auto size = in.get<std::uint64_t>();
    if (!isPassphrase || offset > bytes.size() || size > bytes.size() - offset) continue;
    const auto entry = bytes.subspan(offset, std::min<std::uint64_t>(size, kKeyEntryBytes));
    if (isKnownEntry(entry)) header.keyEntries.emplace_back(entry.begin(), entry.end());
  }
  if (header.keyEntries.empty()) return unsupported("that no password opens");
  if (header.blockBytes < kLeastBlockBytes || header.blockBytes > kMostBlockBytes ||
      !std::has_single_bit(header.blockBytes))
    return unsupported("with blocks of " + std::to_string(header.blockBytes) + " bytes");
  return header;
}

}  // namespace image::crypt
