#pragma once

#include <set>
#include <string>
#include <string_view>

namespace resources_test {

// The texts that C++ source looks up in the string table: the string literals between the parentheses of its
// localizedString(...) calls, adjacent literals joined and escapes resolved. An escape other than those of
// quotes, backslash, newline and tab stays as it is written, and so matches no key.
std::set<std::string, std::less<>> lookedUpTexts(std::string_view source);

}  // namespace resources_test
