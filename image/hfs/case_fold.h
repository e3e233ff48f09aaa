#pragma once

namespace image::hfs {

// The lower-case table of Apple technical note TN1150, "Case-Insensitive String Comparison Algorithm". It has
// no entries for letters that decompose. 0 stands for a character that the comparison ignores; U+0000
// itself folds to U+FFFF.
char16_t foldCase(char16_t unit);

}  // namespace image::hfs
