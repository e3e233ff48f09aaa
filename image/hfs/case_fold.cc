#include "image/hfs/case_fold.h"

#include <array>
#include <cstdint>

namespace image::hfs {
namespace {

// Every step-th unit from first to last moves by distance.
struct Run {
  char16_t first;
  char16_t last;
  int step;
  int distance;
};

constexpr Run kRuns[] = {
    {0x0041, 0x005A, 1, 32}, {0x00C6, 0x00C6, 1, 32}, {0x00D0, 0x00D0, 1, 32}, {0x00D8, 0x00D8, 1, 32},
    {0x00DE, 0x00DE, 1, 32}, {0x0110, 0x0110, 1, 1},  {0x0126, 0x0126, 1, 1},  {0x0132, 0x0132, 1, 1},
    {0x013F, 0x0141, 2, 1},  {0x014A, 0x014A, 1, 1},  {0x0152, 0x0152, 1, 1},  {0x0166, 0x0166, 1, 1},
    {0x0182, 0x0184, 2, 1},  {0x0187, 0x018B, 4, 1},  {0x0191, 0x0191, 1, 1},  {0x0198, 0x0198, 1, 1},
    {0x01A2, 0x01A4, 2, 1},  {0x01A7, 0x01A7, 1, 1},  {0x01AC, 0x01AC, 1, 1},  {0x01B3, 0x01B5, 2, 1},
    {0x01B8, 0x01BC, 4, 1},  {0x01E4, 0x01E4, 1, 1},  {0x0391, 0x03A1, 1, 32}, {0x03A3, 0x03A9, 1, 32},
    {0x03E2, 0x03EE, 2, 1},  {0x0402, 0x0402, 1, 80}, {0x0404, 0x0406, 1, 80}, {0x0408, 0x040B, 1, 80},
    {0x040F, 0x040F, 1, 80}, {0x0410, 0x0418, 1, 32}, {0x041A, 0x042F, 1, 32}, {0x0460, 0x0474, 2, 1},
    {0x0478, 0x0480, 2, 1},  {0x0490, 0x04BE, 2, 1},  {0x04C3, 0x04CB, 4, 1},  {0x0531, 0x0556, 1, 48},
    {0x10A0, 0x10C5, 1, 48}, {0x2160, 0x216F, 1, 16},
};

struct Pair {
  char16_t from;
  char16_t to;
};

constexpr Pair kPairs[] = {
    {0x0181, 0x0253}, {0x0186, 0x0254}, {0x0189, 0x0256}, {0x018A, 0x0257}, {0x018E, 0x01DD},
    {0x018F, 0x0259}, {0x0190, 0x025B}, {0x0193, 0x0260}, {0x0194, 0x0263}, {0x0196, 0x0269},
    {0x0197, 0x0268}, {0x019C, 0x026F}, {0x019D, 0x0272}, {0x019F, 0x0275}, {0x01A9, 0x0283},
    {0x01AE, 0x0288}, {0x01B1, 0x028A}, {0x01B2, 0x028B}, {0x01B7, 0x0292}, {0x01C4, 0x01C6},
    {0x01C5, 0x01C6}, {0x01C7, 0x01C9}, {0x01C8, 0x01C9}, {0x01CA, 0x01CC}, {0x01CB, 0x01CC},
    {0x01F1, 0x01F3}, {0x01F2, 0x01F3},
};

constexpr Pair kIgnored[] = {{0x200C, 0x200F}, {0x202A, 0x202E}, {0x206A, 0x206F}};

// Nothing between here and U+FEFF has an entry.
constexpr std::size_t kTableUnits = 0x2200;

constexpr std::array<char16_t, kTableUnits> makeTable() {
  std::array<char16_t, kTableUnits> table{};
  for (std::size_t unit = 0; unit < kTableUnits; ++unit) table[unit] = static_cast<char16_t>(unit);
  for (const Run& run : kRuns)
    for (int unit = run.first; unit <= run.last; unit += run.step)
      table[static_cast<std::size_t>(unit)] = static_cast<char16_t>(unit + run.distance);
  for (const Pair& pair : kPairs) table[pair.from] = pair.to;
  for (const Pair& range : kIgnored)
    for (std::size_t unit = range.from; unit <= range.to; ++unit) table[unit] = 0;
  table[0] = 0xFFFF;
  return table;
}

constexpr auto kTable = makeTable();

}  // namespace

char16_t foldCase(char16_t unit) {
  if (unit < kTableUnits) return kTable[unit];
  if (unit == 0xFEFF) return 0;
  if (unit >= 0xFF21 && unit <= 0xFF3A) return static_cast<char16_t>(unit + 32);
  return unit;
}

}  // namespace image::hfs
