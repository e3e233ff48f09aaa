#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <ostream>
#include <span>

#include "base/unicode.h"
#include "base/xml_property_list.h"
#include "image/compare.h"
#include "image/contents.h"
#include "image/extract.h"
#include "image/volume.h"
#include "tools/hdiutil_verbs.h"

namespace tools {

const std::string_view kContentsUsage =
    "       hdiutil list [-stdinpass] [-long] [-plist] IMAGE [PATH]\n"
    "       hdiutil extract [-stdinpass] [-overwrite] [-puppetstrings] [-verbose] -to FOLDER IMAGE "
    "[PATH...]\n"
    "       hdiutil compare [-stdinpass] [-quick] [-plist] [-verbose] IMAGE FOLDER\n";

namespace {

using Dictionary = base::PropertyList::Dictionary;
using image::Contents;
using image::Item;
using image::ItemKind;

constexpr int kDifferent = 2;
constexpr std::string_view kCannotBeRead = "hdiutil: cannot be read: ";

struct KindText {
  char letter;
  std::string_view name;
};

// By ItemKind.
constexpr std::array kKindTexts{KindText{'d', "folder"},      KindText{'-', "file"},
                                KindText{'l', "link"},        KindText{'p', "fifo"},
                                KindText{'s', "socket"},      KindText{'c', "character device"},
                                KindText{'b', "block device"}};

const KindText& textOf(ItemKind kind) { return kKindTexts[static_cast<std::size_t>(kind)]; }

// Control characters, and those that turn the direction of the text around them.
bool needsEscape(char32_t scalar) {
  return scalar < 0x20 || (scalar >= 0x7F && scalar < 0xA0) || scalar == '\\' ||
         (scalar >= 0x2028 && scalar <= 0x202E) || (scalar >= 0x2066 && scalar <= 0x2069);
}

// Fit for a terminal: what needs it, and what is not UTF-8, as "\xHH" for each byte; "\" as "\\". Different
// texts stay different.
void appendPrintable(std::string& out, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (std::size_t at = 0; at < text.size();) {
    const auto character = base::decodeUTF8(text, at);
    const std::string_view bytes = text.substr(at, character.length);
    at += character.length;
    if (bytes == "\\") {
      out += "\\\\";
    } else if (character.valid && !needsEscape(character.scalar)) {
      out += bytes;
    } else {
      for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out += {'\\', 'x', kDigits[value >> 4], kDigits[value & 15]};
      }
    }
  }
}

std::string printable(std::string_view text) {
  std::string out;
  appendPrintable(out, text);
  return out;
}

int failPrintable(const HdiutilHost& host, std::string_view verb, std::string_view reason,
                  int status = kFailed) {
  return fail(host, verb, printable(reason), status);
}

// "drwxr-sr-t"
std::string modeText(const Item& item) {
  constexpr std::string_view kLetters = "rwxrwxrwx";
  std::string text(1, textOf(item.kind).letter);
  for (std::size_t i = 0; i < kLetters.size(); ++i)
    text += (item.permissions >> (8 - i) & 1) != 0 ? kLetters[i] : '-';
  const auto mark = [&](std::size_t at, int bit, char letter) {
    if ((item.permissions & bit) != 0)
      text[at] = text[at] == 'x' ? letter : static_cast<char>(letter - 'a' + 'A');
  };
  mark(3, 04000, 's');
  mark(6, 02000, 's');
  mark(9, 01000, 't');
  return text;
}

// "2009-02-13T23:31:30Z", held within the years 1 to 9999.
std::string dateText(const image::Instant& instant) {
  using std::chrono::floor, std::chrono::days;
  const std::chrono::sys_seconds moment(
      std::chrono::seconds(std::clamp<std::int64_t>(instant.seconds, -62135596800, 253402300799)));
  const auto day = floor<days>(moment);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss time(moment - day);
  std::array<char, 32> text;
  const int length =
      std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                    static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                    static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                    static_cast<int>(time.seconds().count()));
  return {text.data(), static_cast<std::size_t>(length)};
}

void appendColumn(std::string& out, const std::string& text, std::size_t width) {
  if (text.size() < width) out.append(width - text.size(), ' ');
  out += text + " ";
}

// The path's fields first; the target last.
void appendLong(std::string& out, const Item& item) {
  out += modeText(item) + " ";
  appendColumn(out, std::to_string(item.links), 3);
  appendColumn(out, std::to_string(item.user), 5);
  appendColumn(out, std::to_string(item.group), 5);
  appendColumn(out, std::to_string(item.size), 11);
  out += dateText(item.modified) + " ";
}

// The path; where it is not UTF-8, its bytes too.
void putPath(Dictionary& dictionary, const std::string& path) {
  dictionary.emplace("path", path);
  if (base::isValidUTF8(path)) return;
  const auto bytes = std::as_bytes(std::span(path));
  dictionary.emplace("path-bytes", base::PropertyList::Data(bytes.begin(), bytes.end()));
}

Dictionary describe(const std::string& path, const Item& item, const std::string& target) {
  const double modified = static_cast<double>(item.modified.seconds) + item.modified.nanoseconds / 1e9;
  Dictionary dictionary{{"kind", textOf(item.kind).name},
                        {"size", static_cast<std::int64_t>(item.size)},
                        {"mode", static_cast<int>(item.permissions)},
                        {"user", static_cast<std::int64_t>(item.user)},
                        {"group", static_cast<std::int64_t>(item.group)},
                        {"links", static_cast<std::int64_t>(item.links)},
                        {"modified", base::Date::fromUnix(modified)}};
  putPath(dictionary, path);
  if (item.kind == ItemKind::symbolicLink) dictionary.emplace("target", target);
  return dictionary;
}

// Puts the items of a volume out, one after the other, in the form that was asked for.
class Listing {
 public:
  Listing(const Arguments& arguments, std::ostream& out)
      : isLong_(arguments.has("-long")), asPropertyList_(arguments.has("-plist")), out_(out) {}

  bool wantsTargets() const { return isLong_ || asPropertyList_; }

  void add(const std::string& path, const Item& item, const std::string& target) {
    if (asPropertyList_) {
      array_.emplace_back(describe(path, item, target));
      return;
    }
    if (isLong_) appendLong(text_, item);
    appendPrintable(text_, path);
    if (isLong_ && item.kind == ItemKind::symbolicLink) appendPrintable(text_ += " -> ", target);
    text_ += '\n';
    if (text_.size() >= kPieceBytes) flush();
  }

  void finish() {
    if (asPropertyList_) text_ = base::writeXMLPropertyList(std::move(array_));
    flush();
    out_.flush();
  }

 private:
  static constexpr std::size_t kPieceBytes = std::size_t{1} << 16;

  void flush() {
    out_ << text_;
    text_.clear();
  }

  bool isLong_;
  bool asPropertyList_;
  std::ostream& out_;
  std::string text_;
  base::PropertyList::Array array_;
};

base::Result<void> listItems(const image::Volume& volume, const Contents& contents, Contents::Index from,
                             Listing& listing) {
  base::Result<void> done;
  contents.forEachInOrder(from, [&](Contents::Index entry) {
    if (!done) return;
    const Item& item = contents[entry].item;
    std::string target;
    if (item.kind == ItemKind::symbolicLink && listing.wantsTargets()) {
      auto read = volume.linkTarget(item.id);
      if (!read) {
        done = base::Error{contents.path(entry) + ": " + read.error().message};
        return;
      }
      target = std::move(*read);
    }
    listing.add(contents.path(entry), item, target);
  });
  return done;
}

// The one item that is asked for: the last of the way to it.
Contents::Index startOf(const Contents& contents, const std::string& path) {
  Contents::Index at = Contents::kRoot;
  const auto parts = image::partsOfPath(path);
  for (std::size_t i = 0; i < parts.size(); ++i) at = contents[at].firstChild;
  return at;
}

base::Result<std::unique_ptr<image::Volume>> openVolume(const Arguments& arguments, const HdiutilHost& host,
                                                        image::Volume::Options options = {}) {
  auto opened = openImage(arguments.operands()[0], arguments, host);
  if (!opened) return opened.error();
  const auto holdsVolume = [](const auto& partition) { return partition.hfsPlus.has_value(); };
  if (std::ranges::count_if((*opened)->partitions(), holdsVolume) > 1)
    host.error << "hdiutil: the image holds more than one HFS+ volume; this is the first\n";
  return image::Volume::open(std::move(*opened), options);
}

base::Result<void> listVolume(const Arguments& arguments, const HdiutilHost& host) {
  // Each folder is looked at once: keeping more would cost more than it saves.
  const auto volume = openVolume(arguments, host, {.cacheBytes = std::uint64_t{16} << 20});
  if (!volume) return volume.error();
  const std::vector<std::string> paths(arguments.operands().begin() + 1, arguments.operands().end());
  const auto contents = Contents::read(**volume, paths, &host.cancelled);
  if (!contents) return contents.error();
  const Contents::Index from = paths.empty() ? Contents::kRoot : startOf(*contents, paths[0]);
  Listing listing(arguments, host.out);
  if (auto listed = listItems(**volume, *contents, from, listing); !listed) return listed;
  listing.finish();
  if (!host.out) return base::Error{"cannot write to standard output"};
  return {};
}

base::Result<image::ExtractReport> extractVolume(const Arguments& arguments, const HdiutilHost& host) {
  const auto volume = openVolume(arguments, host);
  if (!volume) return volume.error();
  image::udif::Progress progress;
  const image::ExtractRequest request{.folder = *arguments.value("-to"),
                                      .paths = {arguments.operands().begin() + 1, arguments.operands().end()},
                                      .overwrites = arguments.has("-overwrite"),
                                      .cancelled = &host.cancelled,
                                      .progress = &progress};
  const auto display = showProgress(arguments, progress, host);
  return image::extract(**volume, request);
}

base::Result<std::vector<image::Difference>> compareVolume(const Arguments& arguments,
                                                           const HdiutilHost& host) {
  const auto volume = openVolume(arguments, host);
  if (!volume) return volume.error();
  return image::compare(
      **volume,
      {.folder = arguments.operands()[1], .isQuick = arguments.has("-quick"), .cancelled = &host.cancelled});
}

// "M path (mode, date)"
std::string lineOf(const image::Difference& difference) {
  constexpr std::string_view kMarks = "+-M";
  std::string line{kMarks[static_cast<std::size_t>(difference.change)], ' '};
  appendPrintable(line, difference.path);
  for (std::size_t i = 0; i < difference.what.size(); ++i)
    line += (i == 0 ? " (" : ", ") + std::string(difference.what[i]);
  return line + (difference.what.empty() ? "\n" : ")\n");
}

Dictionary describe(const image::Difference& difference) {
  constexpr std::array<std::string_view, 3> kChanges{"added", "removed", "changed"};
  base::PropertyList::Array what;
  for (const auto part : difference.what) what.emplace_back(part);
  Dictionary dictionary{{"change", kChanges[static_cast<std::size_t>(difference.change)]}, {"what", what}};
  putPath(dictionary, difference.path);
  return dictionary;
}

void report(const std::vector<image::Difference>& differences, bool asPropertyList, std::ostream& out) {
  base::PropertyList::Array array;
  for (const auto& difference : differences) {
    if (asPropertyList)
      array.emplace_back(describe(difference));
    else
      out << lineOf(difference);
  }
  if (asPropertyList) out << base::writeXMLPropertyList(std::move(array));
  out.flush();
}

int failWithUsage(const HdiutilHost& host, std::string_view verb, std::string_view reason) {
  host.error << "usage:\n" << kContentsUsage;
  return failPrintable(host, verb, reason, kNotUnderstood);
}

}  // namespace

int list(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments =
      Arguments::parse(given, 1, {.withValue = {}, .alone = {"-long", "-plist", "-stdinpass"}});
  if (!arguments) return failWithUsage(host, "list", arguments.error().message);
  if (arguments->operands().empty() || arguments->operands().size() > 2)
    return failWithUsage(host, "list", "one image path is needed, and at most one path in it");
  const auto listed = listVolume(*arguments, host);
  return listed ? kDone : failPrintable(host, "list", listed.error().message);
}

int extract(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments = Arguments::parse(
      given, 1, {.withValue = {"-to"}, .alone = {"-overwrite", "-puppetstrings", "-verbose", "-stdinpass"}});
  if (!arguments) return failWithUsage(host, "extract", arguments.error().message);
  if (arguments->operands().empty()) return failWithUsage(host, "extract", "one image path is needed");
  if (arguments->value("-to").value_or("").empty()) return failWithUsage(host, "extract", "-to is missing");
  const auto report = extractVolume(*arguments, host);
  if (!report) return failPrintable(host, "extract", report.error().message);
  for (const auto& part : report->leftOut) host.error << "hdiutil: left out: " << printable(part) << "\n";
  if (arguments->has("-verbose"))
    host.error << "hdiutil: extract: " << report->files << " files and " << report->folders << " folders, "
               << report->bytes << " bytes\n";
  if (report->unreadable.empty()) return kDone;
  for (const auto& part : report->unreadable) host.error << kCannotBeRead << printable(part) << "\n";
  return failPrintable(host, "extract",
                       std::to_string(report->unreadable.size()) +
                           " of what was asked for cannot be read; everything else was extracted");
}

int compare(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments =
      Arguments::parse(given, 1, {.withValue = {}, .alone = {"-quick", "-plist", "-verbose", "-stdinpass"}});
  if (!arguments) return failWithUsage(host, "compare", arguments.error().message);
  if (arguments->operands().size() != 2)
    return failWithUsage(host, "compare", "one image path and one folder are needed");
  const auto differences = compareVolume(*arguments, host);
  if (!differences) return failPrintable(host, "compare", differences.error().message);
  report(*differences, arguments->has("-plist"), host.out);
  if (!host.out) return fail(host, "compare", "cannot write to standard output");
  if (arguments->has("-verbose"))
    host.error << "hdiutil: compare: " << differences->size() << " differences\n";
  return differences->empty() ? kDone : kDifferent;
}

}  // namespace tools
