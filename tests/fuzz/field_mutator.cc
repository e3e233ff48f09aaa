// Mutates inputs that are structures of big-endian fields with long runs of zeros between them, where the
// library's own mutations would mostly hit nothing: changes fields at and around bytes that are not zero.
#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <span>

extern "C" std::size_t LLVMFuzzerMutate(unsigned char* bytes, std::size_t size, std::size_t maxSize);

namespace {

using Random = std::minstd_rand;

std::size_t placeOfMeaning(std::span<const unsigned char> bytes, Random& random) {
  std::size_t at = random() % bytes.size();
  for (std::size_t tries = 0; tries < 4096 && bytes[at] == 0; ++tries) at = (at + 61) % bytes.size();
  const std::size_t before = random() % 8;
  return at > before ? at - before : at;
}

std::uint64_t load(std::span<const unsigned char> field) {
  std::uint64_t value = 0;
  for (const unsigned char b : field) value = value << 8 | b;
  return value;
}

void store(std::span<unsigned char> field, std::uint64_t value) {
  for (std::size_t i = field.size(); i-- > 0; value >>= 8) field[i] = static_cast<unsigned char>(value);
}

std::uint64_t changed(std::uint64_t value, std::span<const unsigned char> elsewhere, Random& random) {
  constexpr std::array<std::uint64_t, 10> kEdges{0,      1,      2,          0x7F,       0xFF,
                                                 0x7FFF, 0xFFFF, 0x7FFFFFFF, 0xFFFFFFFF, 0x7FFFFFFFFFFFFFFF};
  switch (random() % 4) {
    case 0:
      return kEdges[random() % kEdges.size()];
    case 1:
      return value + random() % 33 - 16;
    case 2:
      return value ^ std::uint64_t{1} << random() % 64;
    default:
      return load(elsewhere);
  }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(unsigned char* bytes, std::size_t size, std::size_t maxSize,
                                               unsigned seed) {
  Random random(seed);
  if (size < 16 || random() % 8 == 0) return LLVMFuzzerMutate(bytes, size, maxSize);
  const std::span all(bytes, size);
  for (std::size_t changes = 1 + random() % 3; changes > 0; --changes) {
    const std::size_t width = std::size_t{1} << random() % 4;
    const auto field = all.subspan(std::min(placeOfMeaning(all, random), size - width), width);
    const auto elsewhere = all.subspan(std::min(placeOfMeaning(all, random), size - width), width);
    store(field, changed(load(field), elsewhere, random));
  }
  return size;
}
