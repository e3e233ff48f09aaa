#include "tests/resources/looked_up_texts.h"

#include <cctype>
#include <optional>
#include <utility>

namespace resources_test {
namespace {

constexpr std::string_view kCall = "localizedString(";

class CallScanner {
 public:
  explicit CallScanner(std::string_view source) : rest_(source) {}

  std::set<std::string, std::less<>> scan() {
    for (auto at = rest_.find(kCall); at != rest_.npos; at = rest_.find(kCall)) {
      rest_.remove_prefix(at + kCall.size());
      readArguments();
    }
    return texts_;
  }

 private:
  void readArguments() {
    std::optional<std::string> text;
    for (int depth = 1; depth > 0 && !rest_.empty();) {
      if (std::isspace(static_cast<unsigned char>(rest_.front()))) {
        take();
      } else if (rest_.starts_with('"')) {
        text = text.value_or("") + readLiteral();
      } else if (rest_.starts_with("R\"")) {
        text = text.value_or("") + readRawLiteral();
      } else {
        if (text) texts_.insert(*text);
        text.reset();
        const char c = take();
        depth += c == '(' ? 1 : c == ')' ? -1 : 0;
      }
    }
  }

  std::string readLiteral() {
    std::string text;
    take();
    while (!rest_.empty() && rest_.front() != '"') {
      const char c = take();
      text += c == '\\' && !rest_.empty() ? readEscape() : std::string(1, c);
    }
    if (!rest_.empty()) take();
    return text;
  }

  std::string readEscape() {
    switch (const char c = take()) {
      case 'n':
        return "\n";
      case 't':
        return "\t";
      case '"':
      case '\'':
      case '\\':
        return {c};
      default:
        return {'\\', c};
    }
  }

  // R"delimiter(text)delimiter"
  std::string readRawLiteral() {
    rest_.remove_prefix(2);
    const auto open = rest_.find('(');
    const auto end =
        open == rest_.npos ? open : rest_.find(")" + std::string(rest_.substr(0, open)) + '"', open);
    if (end == rest_.npos) return std::string(std::exchange(rest_, {}));
    const std::string text(rest_.substr(open + 1, end - open - 1));
    rest_.remove_prefix(end + open + 2);
    return text;
  }

  char take() {
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  std::string_view rest_;
  std::set<std::string, std::less<>> texts_;
};

}  // namespace

std::set<std::string, std::less<>> lookedUpTexts(std::string_view source) {
  return CallScanner(source).scan();
}

}  // namespace resources_test
