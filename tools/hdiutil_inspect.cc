#include <map>
#include <ostream>
#include <vector>

#include "base/xml_property_list.h"
#include "image/verify.h"
#include "tools/hdiutil_verbs.h"

namespace tools {

const std::string_view kInspectUsage =
    "       hdiutil verify [-stdinpass] [-verbose] [-puppetstrings] IMAGE\n"
    "       hdiutil imageinfo [-stdinpass] [-plist] IMAGE\n";

namespace {

// In sectors.
struct Part {
  std::string name;
  std::uint64_t first;
  std::uint64_t count;
};

std::vector<Part> partsOf(const image::OpenedImage& image) {
  std::vector<Part> parts;
  if (image.udif() == nullptr)
    for (const auto& partition : image.partitions())
      parts.push_back({partition.name + " (" + partition.type + ")", partition.extent.offset / 512,
                       partition.extent.size / 512});
  else
    for (const auto& table : image.udif()->tables())
      parts.push_back({table.name, table.firstSector, table.sectorCount});
  return parts;
}

// As the platform's tool calls it, by the first compressed chunk.
std::string formatOf(const image::OpenedImage& image) {
  using image::udif::RunType;
  static const std::map<RunType, std::string> kFormats{{RunType::adc, "UDCO"},
                                                       {RunType::zlib, "UDZO"},
                                                       {RunType::bzip2, "UDBZ"},
                                                       {RunType::lzfse, "ULFO"},
                                                       {RunType::lzma, "ULMO"}};
  if (image.udif() == nullptr) return "UDRW";
  for (const auto& table : image.udif()->tables())
    for (const auto& run : table.runs)
      if (const auto format = kFormats.find(run.type); format != kFormats.end()) return format->second;
  return "UDRO";
}

base::PropertyList::Dictionary describe(const image::OpenedImage& image) {
  using Dictionary = base::PropertyList::Dictionary;
  base::PropertyList::Array partitions;
  for (const Part& part : partsOf(image))
    partitions.emplace_back(Dictionary{{"partition-name", part.name},
                                       {"partition-start", static_cast<std::int64_t>(part.first)},
                                       {"partition-length", static_cast<std::int64_t>(part.count)}});
  const bool isSummed = image.udif() != nullptr && image.udif()->trailer().masterChecksum;
  Dictionary description{
      {"Format", formatOf(image)},
      {"Checksum Type", isSummed ? "CRC32" : "none"},
      {"Size Information", Dictionary{{"Total Bytes", static_cast<std::int64_t>(image.disk().size())},
                                      {"Compressed Bytes", static_cast<std::int64_t>(image.fileBytes())}}},
      {"partitions", std::move(partitions)}};
  description.emplace("Properties", Dictionary{{"Encrypted", image.container().has_value()}});
  return description;
}

base::Result<image::hfs::VolumeCounts> checkShowingProgress(const image::OpenedImage& image,
                                                            const Arguments& arguments,
                                                            const HdiutilHost& host) {
  image::udif::Progress progress;
  const auto display = showProgress(arguments, progress, host);
  return image::checkImage(image, 0, &host.cancelled, nullptr, &progress);
}

}  // namespace

int verify(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments = Arguments::parse(
      given, 1, {.withValue = {}, .alone = {"-plist", "-puppetstrings", "-verbose", "-stdinpass"}});
  if (!arguments) return fail(host, "verify", arguments.error().message, kNotUnderstood);
  const auto image = openImage(*arguments, host);
  if (!image) return fail(host, "verify", image.error().message);
  const auto counts = checkShowingProgress(**image, *arguments, host);
  if (!counts) return fail(host, "verify", counts.error().message);
  const std::string& path = arguments->operands()[0];
  host.error << "hdiutil: verify: checksum of \"" << path << "\" is VALID\n";
  if ((*image)->udif() == nullptr) host.error << "hdiutil: verify: it has no checksums of its own\n";
  if (!(*image)->hfsPlusVolume())
    host.error << "hdiutil: verify: no HFS+ volume in it, nothing but checksums was checked\n";
  else if (arguments->has("-verbose"))
    host.error << "hdiutil: verify: " << counts->files << " files and " << counts->folders
               << " folders are sound\n";
  return kDone;
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
           << "Total Bytes: " << (*image)->disk().size() << "\n"
           << "Compressed Bytes: " << (*image)->fileBytes() << "\n"
           << "partitions:\n";
  for (const Part& part : partsOf(**image))
    host.out << "\t" << part.first << "\t" << part.count << "\t" << part.name << "\n";
  return kDone;
}

}  // namespace tools
