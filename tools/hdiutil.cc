#include "tools/hdiutil.h"

#include <memory>
#include <ostream>

#include "base/xml_property_list.h"
#include "image/create.h"
#include "image/open.h"
#include "image/verify.h"
#include "tools/arguments.h"
#include "tools/progress_display.h"

namespace tools {
namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kNotUnderstood = 64;

constexpr std::string_view kUsage =
    "usage: hdiutil create -fs HFS+ -volname NAME -srcfolder FOLDER [-format UDZO|UDRO]\n"
    "                      [-encryption AES-128|AES-256 -stdinpass] [-skipunreadable] [-puppetstrings] "
    "[-plist]\n"
    "                      [-verbose] IMAGE\n"
    "       hdiutil verify [-stdinpass] [-verbose] IMAGE\n"
    "       hdiutil imageinfo [-stdinpass] [-plist] IMAGE\n";

int fail(const HdiutilHost& host, std::string_view verb, std::string_view reason, int status = kFailed) {
  host.error << "hdiutil: " << verb << " failed - " << reason << "\n";
  return status;
}

// The file name without folders.
std::string lastComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path.substr(path.rfind('/') + 1);
}

base::Result<image::CreateRequest> createRequest(const Arguments& arguments) {
  const auto source = arguments.value("-srcfolder");
  if (!source || source->empty()) return base::Error{"-srcfolder is missing"};
  if (arguments.operands().size() != 1 || arguments.operands()[0].empty())
    return base::Error{"one image path is needed"};
  if (arguments.value("-fs").value_or("HFS+") != "HFS+")
    return base::Error{"unknown file system " + *arguments.value("-fs")};
  const std::string format = arguments.value("-format").value_or("UDZO");
  if (format != "UDZO" && format != "UDRO") return base::Error{"unknown format " + format};
  return image::CreateRequest{.source = *source,
                              .volumeName = arguments.value("-volname").value_or(lastComponent(*source)),
                              .image = arguments.operands()[0],
                              .format = format == "UDZO" ? image::Format::zlib : image::Format::raw};
}

void reportCreated(const std::string& path, bool asPropertyList, std::ostream& out) {
  if (asPropertyList)
    out << base::writeXMLPropertyList(base::PropertyList::Array{path});
  else
    out << "created: " << path << "\n";
}

// Encryption without a password on standard input is refused: nobody could be asked for one.
base::Result<std::optional<image::Encryption>> readEncryption(const Arguments& arguments,
                                                              const HdiutilHost& host) {
  const auto name = arguments.value("-encryption");
  if (!name) return std::optional<image::Encryption>();
  const auto method = image::crypt::methodNamed(*name);
  if (!method) return base::Error{"unknown encryption method \"" + *name + "\""};
  if (!arguments.has("-stdinpass")) return base::Error{"-encryption needs -stdinpass"};
  auto password = host.readPassword();
  if (!password) return password.error();
  if (password->empty()) return base::Error{"the password on standard input is empty"};
  return std::optional(image::Encryption{*method, std::move(*password)});
}

// Lines for programs when they are asked for, a bar for a person who watches and sees no phases. With -plist
// standard output belongs to the property list.
std::unique_ptr<ProgressDisplay> progressDisplay(const Arguments& arguments,
                                                 const image::udif::Progress& progress,
                                                 const HdiutilHost& host) {
  using Style = ProgressDisplay::Style;
  if (arguments.has("-puppetstrings"))
    return std::make_unique<ProgressDisplay>(progress, Style::percentLines,
                                             arguments.has("-plist") ? host.error : host.out);
  if (!host.errorIsTerminal || arguments.has("-verbose")) return nullptr;
  return std::make_unique<ProgressDisplay>(progress, Style::bar, host.error);
}

int create(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments =
      Arguments::parse(given, 1,
                       {.withValue = {"-fs", "-volname", "-srcfolder", "-format", "-encryption"},
                        .alone = {"-plist", "-verbose", "-stdinpass", "-skipunreadable", "-puppetstrings"}});
  if (!arguments) return fail(host, "create", arguments.error().message, kNotUnderstood);
  auto request = createRequest(*arguments);
  if (!request) {
    host.error << kUsage;
    return fail(host, "create", request.error().message, kNotUnderstood);
  }
  auto encryption = readEncryption(*arguments, host);
  if (!encryption) return fail(host, "create", encryption.error().message, kNotUnderstood);
  request->encryption = std::move(*encryption);
  request->cancelled = &host.cancelled;
  request->skipsUnreadable = arguments->has("-skipunreadable");
  if (arguments->has("-verbose"))
    request->phase = [&host](std::string_view text) { host.error << "hdiutil: " << text << "\n"; };
  image::udif::Progress progress;
  request->progress = &progress;
  const auto report = [&] {
    const auto display = progressDisplay(*arguments, progress, host);
    return image::createImage(*request);
  }();
  if (!report) return fail(host, "create", report.error().message);
  for (const auto& item : report->leftOut) host.error << "hdiutil: left out: " << item << "\n";
  reportCreated(request->image, arguments->has("-plist"), host.out);
  host.out.flush();
  return host.out ? kDone : fail(host, "create", "cannot write to standard output");
}

// The image that the arguments name, opened with the password that -stdinpass says is on standard input.
base::Result<std::unique_ptr<image::OpenedImage>> openImage(const Arguments& arguments,
                                                            const HdiutilHost& host) {
  if (arguments.operands().size() != 1) return base::Error{"one image path is needed"};
  if (!arguments.has("-stdinpass")) return image::OpenedImage::open(arguments.operands()[0], nullptr);
  const auto password = host.readPassword();
  if (!password) return password.error();
  return image::OpenedImage::open(arguments.operands()[0], &*password);
}

int verify(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments =
      Arguments::parse(given, 1, {.withValue = {}, .alone = {"-plist", "-verbose", "-stdinpass"}});
  if (!arguments) return fail(host, "verify", arguments.error().message, kNotUnderstood);
  const auto image = openImage(*arguments, host);
  if (!image) return fail(host, "verify", image.error().message);
  const auto counts = image::checkImage(**image, 0, &host.cancelled);
  if (!counts) return fail(host, "verify", counts.error().message);
  const std::string& path = arguments->operands()[0];
  host.error << "hdiutil: verify: checksum of \"" << path << "\" is VALID\n";
  if (arguments->has("-verbose"))
    host.error << "hdiutil: verify: " << counts->files << " files and " << counts->folders
               << " folders are sound\n";
  return kDone;
}

base::PropertyList::Dictionary describe(const image::OpenedImage& image) {
  using Dictionary = base::PropertyList::Dictionary;
  base::PropertyList::Array partitions;
  std::string format = "UDRO";
  for (const auto& table : image.udif().tables()) {
    partitions.emplace_back(Dictionary{{"partition-name", table.name},
                                       {"partition-start", static_cast<std::int64_t>(table.firstSector)},
                                       {"partition-length", static_cast<std::int64_t>(table.sectorCount)}});
    for (const auto& run : table.runs)
      if (run.type == image::udif::RunType::zlib) format = "UDZO";
  }
  const auto sectors = static_cast<std::int64_t>(image.udif().trailer().sectorCount);
  Dictionary description{
      {"Format", format},
      {"Checksum Type", image.udif().trailer().masterChecksum ? "CRC32" : "none"},
      {"Size Information", Dictionary{{"Total Bytes", sectors * 512},
                                      {"Compressed Bytes", static_cast<std::int64_t>(image.fileBytes())}}},
      {"partitions", std::move(partitions)}};
  description.emplace("Properties", Dictionary{{"Encrypted", image.container().has_value()}});
  return description;
}

int imageInfo(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments =
      Arguments::parse(given, 1, {.withValue = {}, .alone = {"-plist", "-verbose", "-stdinpass"}});
  if (!arguments) return fail(host, "imageinfo", arguments.error().message, kNotUnderstood);
  const auto image = openImage(*arguments, host);
  if (!image) return fail(host, "imageinfo", image.error().message);
  const auto description = describe(**image);
  if (arguments->has("-plist")) {
    host.out << base::writeXMLPropertyList(description);
    return kDone;
  }
  host.out << "Format: " << *base::find<std::string>(description, "Format") << "\n"
           << "Encrypted: " << ((*image)->container() ? "true" : "false") << "\n"
           << "Total Bytes: " << (*image)->udif().trailer().sectorCount * 512 << "\n"
           << "Compressed Bytes: " << (*image)->fileBytes() << "\n"
           << "partitions:\n";
  for (const auto& table : (*image)->udif().tables())
    host.out << "\t" << table.firstSector << "\t" << table.sectorCount << "\t" << table.name << "\n";
  return kDone;
}

}  // namespace

int hdiutil(const std::vector<std::string>& arguments, const HdiutilHost& host) {
  if (!arguments.empty() && arguments[0] == "create") return create(arguments, host);
  if (!arguments.empty() && arguments[0] == "verify") return verify(arguments, host);
  if (!arguments.empty() && arguments[0] == "imageinfo") return imageInfo(arguments, host);
  host.error << kUsage;
  if (arguments.empty()) return kNotUnderstood;
  return fail(host, arguments[0], "unknown verb", kNotUnderstood);
}

}  // namespace tools
