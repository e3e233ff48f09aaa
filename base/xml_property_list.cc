#include "base/xml_property_list.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <optional>
#include <span>

#include "base/unicode.h"

namespace base {
namespace {

constexpr std::string_view kSpace = " \t\r\n";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kUIDKey = "CF$UID";
constexpr std::chrono::sys_seconds kReferenceDate = std::chrono::sys_days{std::chrono::year{2001} / 1 / 1};

// Production 2 of XML 1.0.
bool isXMLCharacter(char32_t c) {
  return c >= 0x20 ? c != 0xFFFE && c != 0xFFFF : c == '\t' || c == '\n' || c == '\r';
}

bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
         c == '.' || c == ':';
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(kSpace);
  return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::string quoted(std::string_view text) { return "\"" + std::string(text.substr(0, 64)) + "\""; }

template <class T>
std::optional<T> wholeNumber(std::string_view digits, int radix = 10) {
  T value{};
  const auto [end, problem] = std::from_chars(digits.data(), digits.data() + digits.size(), value, radix);
  if (problem != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
  return value;
}

// Decimal or, after "0x", hexadecimal digits after an optional sign.
std::optional<std::int64_t> integerFromText(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  const auto magnitude = wholeNumber<std::uint64_t>(text, hexadecimal ? 16 : 10);
  constexpr std::uint64_t kLargest = std::numeric_limits<std::int64_t>::max();
  if (!magnitude || *magnitude > kLargest + negative) return std::nullopt;
  return static_cast<std::int64_t>(negative ? 0 - *magnitude : *magnitude);
}

std::optional<double> realFromText(std::string_view text) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  double value = 0;
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (problem != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// "2001-01-01T00:00:00Z", nothing shorter or longer.
std::optional<Date> dateFromText(std::string_view text) {
  constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:ddZ";
  const auto fits = [](char form, char c) { return form == 'd' ? c >= '0' && c <= '9' : c == form; };
  if (!std::ranges::equal(kForm, text, fits)) return std::nullopt;
  const auto field = [&](std::size_t at, std::size_t length) {
    return wholeNumber<unsigned>(text.substr(at, length)).value_or(0);
  };
  const std::chrono::year_month_day day{std::chrono::year(static_cast<int>(field(0, 4))),
                                        std::chrono::month(field(5, 2)), std::chrono::day(field(8, 2))};
  const unsigned hours = field(11, 2), minutes = field(14, 2), seconds = field(17, 2);
  if (!day.ok() || hours > 23 || minutes > 59 || seconds > 59) return std::nullopt;
  const auto midnight = std::chrono::sys_seconds{std::chrono::sys_days{day}} - kReferenceDate;
  return Date{static_cast<double>(midnight.count() + hours * 3600L + minutes * 60L + seconds)};
}

// RFC 4648 with padding; white space anywhere.
std::optional<PropertyList::Data> dataFromBase64(std::string_view text) {
  PropertyList::Data data;
  data.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  std::size_t digits = 0, padding = 0;
  for (const char c : text) {
    if (kSpace.find(c) != std::string_view::npos) continue;
    const auto digit = kBase64Digits.find(c);
    if (c != '=' && (padding > 0 || digit == std::string_view::npos)) return std::nullopt;
    if (c == '=' && ++padding > 2) return std::nullopt;
    bits = bits << 6 | (c == '=' ? 0 : static_cast<std::uint32_t>(digit));
    if (++digits % 4 != 0) continue;
    for (const int shift : {16, 8, 0}) data.push_back(static_cast<std::byte>(bits >> shift));
  }
  if (digits % 4 != 0) return std::nullopt;
  data.resize(data.size() - padding);
  return data;
}

// Stops at the first thing that is wrong: the parsing functions answer false (or nullopt) from there on up,
// and failure() says what it was.
class XMLParser {
 public:
  explicit XMLParser(std::string_view text) : text_(text) {}

  std::optional<PropertyList> document() {
    if (lookingAt(kByteOrderMark)) at_ += kByteOrderMark.size();
    Tag tag;
    PropertyList value;
    if (!checkCharacters() || !prolog() || !readTag(tag)) return std::nullopt;
    if (tag.name != "plist" || tag.closing || tag.empty) {
      fail("the outermost element is not <plist>");
      return std::nullopt;
    }
    if (!skipFiller() || !readTag(tag) || !readValue(tag, value, 0)) return std::nullopt;
    if (!skipFiller() || !readClosingTag("plist") || !skipFiller()) return std::nullopt;
    if (at_ < text_.size()) {
      fail("there is something after </plist>");
      return std::nullopt;
    }
    return value;
  }

  Error failure() const {
    const auto line = 1 + std::ranges::count(text_.substr(0, failedAt_), '\n');
    return {"reading an XML property list: line " + std::to_string(line) + ": " + problem_};
  }

 private:
  struct Tag {
    std::string_view name;
    bool closing = false;  // </name>
    bool empty = false;    // <name/>
  };

  bool fail(std::string problem) {
    problem_ = std::move(problem);
    failedAt_ = std::min(at_, text_.size());
    return false;
  }

  bool lookingAt(std::string_view what) const { return text_.substr(at_).starts_with(what); }
  bool atEnd() const { return at_ >= text_.size(); }
  void skipSpace() { at_ = std::min(text_.find_first_not_of(kSpace, at_), text_.size()); }

  bool checkCharacters() {
    for (std::size_t at = at_; at < text_.size();) {
      const UTF8Character character = decodeUTF8(text_, at);
      if (!character.valid || !isXMLCharacter(character.scalar)) {
        at_ = at;
        return fail(character.valid ? "a character that XML does not allow" : "the text is not UTF-8");
      }
      at += character.length;
    }
    return true;
  }

  // Moves past the next `end`.
  bool skipPast(std::string_view end, std::string_view of) {
    const auto found = text_.find(end, at_);
    if (found == std::string_view::npos) return fail("a " + std::string(of) + " that does not end");
    at_ = found + end.size();
    return true;
  }

  bool skipComment() {
    at_ += 4;
    return skipPast("-->", "comment");
  }

  // White space, comments and processing instructions.
  bool skipFiller() {
    for (;;) {
      skipSpace();
      if (lookingAt("<!--")) {
        if (!skipComment()) return false;
      } else if (lookingAt("<?")) {
        if (!skipPast("?>", "processing instruction")) return false;
      } else {
        return true;
      }
    }
  }

  bool prolog() {
    if (lookingAt("<?xml") && !declaration()) return false;
    if (!skipFiller()) return false;
    if (lookingAt("<!DOCTYPE") && !skipDocumentType()) return false;
    return skipFiller();
  }

  bool declaration() {
    const auto begin = at_;
    if (!skipPast("?>", "XML declaration")) return false;
    const auto declared = text_.substr(begin, at_ - begin);
    const auto encoding = declared.find("encoding");
    if (encoding == std::string_view::npos) return true;
    const auto open = declared.find_first_of("\"'", encoding);
    if (open == std::string_view::npos) return fail("an XML declaration without its encoding's name");
    std::string name(declared.substr(open + 1, declared.find(declared[open], open + 1) - open - 1));
    std::ranges::transform(name, name.begin(), [](char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; });
    return name == "UTF-8" || name == "US-ASCII" || fail("the encoding is " + quoted(name) + ", not UTF-8");
  }

  bool skipDocumentType() {
    for (at_ += 9; !atEnd(); ++at_) {
      const char c = text_[at_];
      if (c == '[') return fail("a DOCTYPE with definitions of its own");
      if (c == '>') {
        ++at_;
        return true;
      }
      if (c != '"' && c != '\'') continue;
      const auto close = text_.find(c, at_ + 1);
      if (close == std::string_view::npos) break;
      at_ = close;
    }
    return fail("a DOCTYPE that does not end");
  }

  std::string_view readName() {
    const auto begin = at_;
    while (!atEnd() && isNameCharacter(text_[at_])) ++at_;
    return text_.substr(begin, at_ - begin);
  }

  bool skipAttributes() {
    for (skipSpace(); !atEnd() && isNameCharacter(text_[at_]); skipSpace()) {
      readName();
      skipSpace();
      if (!lookingAt("=")) return fail("an attribute without a value");
      ++at_;
      skipSpace();
      if (!lookingAt("\"") && !lookingAt("'")) return fail("an attribute's value without quotes");
      const char quote = text_[at_++];
      if (!skipPast({&quote, 1}, "attribute's value")) return false;
    }
    return true;
  }

  bool readTag(Tag& tag) {
    if (atEnd()) return fail("the text ends too soon");
    if (!lookingAt("<")) return fail("text where an element is expected");
    ++at_;
    tag = {};
    if ((tag.closing = lookingAt("/"))) ++at_;
    tag.name = readName();
    if (tag.name.empty()) return fail("a tag without a name");
    if (!tag.closing && !skipAttributes()) return false;
    skipSpace();
    if (!tag.closing && (tag.empty = lookingAt("/"))) ++at_;
    if (!lookingAt(">")) return fail("the tag " + quoted(tag.name) + " does not end");
    ++at_;
    return true;
  }

  bool readClosingTag(std::string_view name) {
    Tag tag;
    if (!readTag(tag)) return false;
    return (tag.closing && tag.name == name) ||
           fail("found " + quoted(tag.name) + " where </" + std::string(name) + "> is expected");
  }

  // "&amp;" and the like, at the ampersand.
  bool readReference(std::string& into) {
    const auto semicolon = text_.substr(at_, 16).find(';');
    if (semicolon == std::string_view::npos) return fail("an entity that does not end");
    std::string_view name = text_.substr(at_ + 1, semicolon - 1);
    constexpr std::array<std::pair<std::string_view, char>, 5> kEntities = {
        {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};
    const auto entity = std::ranges::find(kEntities, name, &std::pair<std::string_view, char>::first);
    if (entity != kEntities.end()) {
      into += entity->second;
    } else if (!name.starts_with('#') || !appendNumbered(name.substr(1), into)) {
      return fail("the unknown entity " + quoted(name));
    }
    at_ += semicolon + 1;
    return true;
  }

  static bool appendNumbered(std::string_view number, std::string& into) {
    const bool hexadecimal = number.starts_with('x');
    if (hexadecimal) number.remove_prefix(1);
    const auto scalar = wholeNumber<std::uint32_t>(number, hexadecimal ? 16 : 10);
    if (!scalar || *scalar > 0x10FFFF || (*scalar >= 0xD800 && *scalar < 0xE000) || !isXMLCharacter(*scalar))
      return false;
    appendUTF8(into, *scalar);
    return true;
  }

  // Line ends read as a line feed, however they are written.
  static void appendLines(std::string_view text, std::string& into) {
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] != '\r') {
        into += text[i];
      } else if (i + 1 == text.size() || text[i + 1] != '\n') {
        into += '\n';
      }
    }
  }

  bool readCharacterData(std::string& into) {
    at_ += 9;
    const auto begin = at_;
    if (!skipPast("]]>", "CDATA section")) return false;
    appendLines(text_.substr(begin, at_ - 3 - begin), into);
    return true;
  }

  // The text up to and with the element's closing tag.
  bool readText(const Tag& tag, std::string& into) {
    if (tag.empty) return true;
    while (!lookingAt("</")) {
      const auto end = std::min(text_.find_first_of("<&", at_), text_.size());
      appendLines(text_.substr(at_, end - at_), into);
      at_ = end;
      if (atEnd()) return fail("the text ends inside <" + std::string(tag.name) + ">");
      if (lookingAt("</")) break;
      const bool understood = lookingAt("&")           ? readReference(into)
                              : lookingAt("<![CDATA[") ? readCharacterData(into)
                              : lookingAt("<!--")      ? skipComment()
                              : lookingAt("<?")        ? skipPast("?>", "processing instruction")
                                                : fail("an element inside <" + std::string(tag.name) + ">");
      if (!understood) return false;
    }
    return readClosingTag(tag.name);
  }

  bool readValue(const Tag& tag, PropertyList& value, int depth) {
    if (tag.closing) return fail("found </" + std::string(tag.name) + "> where a value is expected");
    if (tag.name == "dict") return readDictionary(tag, value, depth + 1);
    if (tag.name == "array") return readArray(tag, value, depth + 1);
    return readScalar(tag, value);
  }

  bool readScalar(const Tag& tag, PropertyList& value) {
    const auto begin = at_;
    std::string content;
    if (!readText(tag, content)) return false;
    const std::string_view text = trimmed(content);
    const auto take = [&](auto&& parsed) {
      if (parsed) value = std::move(*parsed);
      return parsed.has_value();
    };
    const bool understood = tag.name == "string"    ? (value = std::move(content), true)
                            : tag.name == "integer" ? take(integerFromText(text))
                            : tag.name == "real"    ? take(realFromText(text))
                            : tag.name == "date"    ? take(dateFromText(text))
                            : tag.name == "data"    ? take(dataFromBase64(text))
                            : tag.name == "true"    ? (value = true, text.empty())
                            : tag.name == "false"   ? (value = false, text.empty())
                                                    : false;
    if (understood) return true;
    at_ = begin;
    constexpr std::string_view kKnown[] = {"integer", "real", "date", "data", "true", "false"};
    if (std::ranges::find(kKnown, tag.name) == std::end(kKnown))
      return fail("the unknown element " + quoted(tag.name));
    return fail(quoted(text) + " is no value of the element <" + std::string(tag.name) + ">");
  }

  bool withinDepth(int depth) {
    return depth <= kMaxPropertyListDepth ||
           fail("nested deeper than " + std::to_string(kMaxPropertyListDepth) + " levels");
  }

  bool readArray(const Tag& tag, PropertyList& value, int depth) {
    PropertyList::Array array;
    Tag child;
    for (bool open = !tag.empty; open;) {
      if (!withinDepth(depth) || !skipFiller() || !readTag(child)) return false;
      if (child.closing && child.name == tag.name) {
        open = false;
      } else if (!readValue(child, array.emplace_back(), depth)) {
        return false;
      }
    }
    value = std::move(array);
    return true;
  }

  bool readDictionary(const Tag& tag, PropertyList& value, int depth) {
    PropertyList::Dictionary dictionary;
    Tag child;
    for (bool open = !tag.empty; open;) {
      if (!withinDepth(depth) || !skipFiller() || !readTag(child)) return false;
      if (child.closing && child.name == tag.name) {
        open = false;
      } else if (!readEntry(child, dictionary, depth)) {
        return false;
      }
    }
    const auto* uid = dictionary.size() == 1 ? find<std::int64_t>(dictionary, kUIDKey) : nullptr;
    if (uid && *uid >= 0 && static_cast<std::uint64_t>(*uid) <= PropertyList::kLargestUID)
      value = PropertyList::UID{static_cast<std::uint64_t>(*uid)};
    else
      value = std::move(dictionary);
    return true;
  }

  bool readEntry(const Tag& tag, PropertyList::Dictionary& dictionary, int depth) {
    if (tag.closing || tag.name != "key")
      return fail("found " + quoted(tag.name) + " where a <key> is expected");
    std::string key;
    PropertyList value;
    Tag valueTag;
    if (!readText(tag, key) || !skipFiller() || !readTag(valueTag) || !readValue(valueTag, value, depth))
      return false;
    dictionary.insert_or_assign(std::move(key), std::move(value));
    return true;
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::string problem_;
  std::size_t failedAt_ = 0;
};

class XMLWriter {
 public:
  explicit XMLWriter(std::string& out) : out_(out) {}

  void write(const PropertyList& value, std::size_t depth) {
    indent(depth);
    if (const auto* boolean = value.as<bool>()) out_ += *boolean ? "<true/>\n" : "<false/>\n";
    if (const auto* integer = value.as<std::int64_t>()) element("integer", std::to_string(*integer));
    if (const auto* real = value.as<double>()) element("real", realText(*real));
    if (const auto* text = value.as<std::string>()) element("string", *text);
    if (const auto* date = value.as<Date>()) element("date", dateText(*date));
    if (const auto* data = value.as<PropertyList::Data>()) writeData(*data, depth);
    if (const auto* uid = value.as<PropertyList::UID>()) writeUID(*uid, depth);
    if (const auto* array = value.as<PropertyList::Array>()) writeArray(*array, depth);
    if (const auto* dictionary = value.as<PropertyList::Dictionary>()) writeDictionary(*dictionary, depth);
  }

 private:
  void indent(std::size_t depth) { out_.append(depth, '\t'); }

  void element(std::string_view name, std::string_view content) {
    ((out_ += '<') += name) += '>';
    for (std::size_t at = 0; at < content.size();) {
      const UTF8Character character = decodeUTF8(content, at);
      append(character.valid ? character.scalar : kReplacementCharacter);
      at += character.length;
    }
    ((out_ += "</") += name) += ">\n";
  }

  // A carriage return is spelled out, as a reader would take it for a line end.
  void append(char32_t character) {
    switch (character) {
      case '&':
        out_ += "&amp;";
        break;
      case '<':
        out_ += "&lt;";
        break;
      case '>':
        out_ += "&gt;";
        break;
      case '\r':
        out_ += "&#13;";
        break;
      default:
        appendUTF8(out_, isXMLCharacter(character) ? character : kReplacementCharacter);
    }
  }

  // 17 significant digits, in any locale.
  static std::string realText(double real) {
    if (std::isnan(real)) return "nan";
    if (std::isinf(real)) return real > 0 ? "+infinity" : "-infinity";
    std::array<char, 32> text;
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), real, std::chars_format::general, 17).ptr;
    return {text.data(), end};
  }

  static std::string dateText(Date date) {
    using namespace std::chrono;
    constexpr sys_seconds kFirst = sys_days{year{1} / 1 / 1};
    constexpr sys_seconds kLast = sys_days{year{10000} / 1 / 1} - seconds{1};
    const double first = static_cast<double>((kFirst - kReferenceDate).count());
    const double last = static_cast<double>((kLast - kReferenceDate).count());
    const double whole = std::floor(date.secondsSinceReferenceDate);
    const double held = whole >= first ? std::min(whole, last) : first;
    const auto moment = kReferenceDate + seconds{static_cast<std::int64_t>(held)};
    const auto midnight = floor<days>(moment);
    const year_month_day day{midnight};
    const hh_mm_ss time{moment - midnight};
    std::string text;
    const auto field = [&](auto number, std::size_t digits, char after) {
      const std::string plain = std::to_string(number);
      (text.append(digits - std::min(digits, plain.size()), '0') += plain) += after;
    };
    field(int{day.year()}, 4, '-');
    field(unsigned{day.month()}, 2, '-');
    field(unsigned{day.day()}, 2, 'T');
    field(time.hours().count(), 2, ':');
    field(time.minutes().count(), 2, ':');
    field(time.seconds().count(), 2, 'Z');
    return text;
  }

  // Lines reach to column 76, a tab counting 8, with no more than 8 tabs before them.
  void writeData(const PropertyList::Data& data, std::size_t depth) {
    const std::size_t tabs = std::min<std::size_t>(depth, 8);
    const std::size_t bytesPerLine = (76 - 8 * tabs) / 4 * 3;
    out_ += "<data>\n";
    for (std::size_t at = 0; at < data.size(); at += bytesPerLine) {
      indent(tabs);
      appendBase64(std::span(data).subspan(at, std::min(bytesPerLine, data.size() - at)));
      out_ += '\n';
    }
    indent(depth);
    out_ += "</data>\n";
  }

  void appendBase64(std::span<const std::byte> bytes) {
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
      const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
      std::uint32_t bits = 0;
      for (std::size_t i = 0; i < 3; ++i)
        bits = bits << 8 | (i < count ? std::to_integer<std::uint32_t>(bytes[at + i]) : 0);
      for (std::size_t i = 0; i < 4; ++i) out_ += i > count ? '=' : kBase64Digits[bits >> (18 - 6 * i) & 63];
    }
  }

  void writeUID(PropertyList::UID uid, std::size_t depth) {
    out_ += "<dict>\n";
    indent(depth + 1);
    element("key", kUIDKey);
    indent(depth + 1);
    element("integer", std::to_string(uid.index));
    indent(depth);
    out_ += "</dict>\n";
  }

  void writeArray(const PropertyList::Array& array, std::size_t depth) {
    if (array.empty()) {
      out_ += "<array/>\n";
      return;
    }
    out_ += "<array>\n";
    for (const PropertyList& value : array) write(value, depth + 1);
    indent(depth);
    out_ += "</array>\n";
  }

  void writeDictionary(const PropertyList::Dictionary& dictionary, std::size_t depth) {
    if (dictionary.empty()) {
      out_ += "<dict/>\n";
      return;
    }
    out_ += "<dict>\n";
    for (const auto& [key, value] : dictionary) {
      indent(depth + 1);
      element("key", key);
      write(value, depth + 1);
    }
    indent(depth);
    out_ += "</dict>\n";
  }

  std::string& out_;
};

}  // namespace

Result<PropertyList> parseXMLPropertyList(std::string_view text) {
  XMLParser parser(text);
  if (auto value = parser.document()) return std::move(*value);
  return parser.failure();
}

std::string writeXMLPropertyList(const PropertyList& value) {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n";
  XMLWriter(text).write(value, 0);
  return text += "</plist>\n";
}

}  // namespace base
