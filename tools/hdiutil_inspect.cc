#include <ostream>

#include "base/xml_property_list.h"
#include "image/verify.h"
#include "tools/hdiutil_verbs.h"

namespace tools {

const std::string_view kInspectUsage =
    "       hdiutil verify [-stdinpass] [-verbose] IMAGE\n"
    "       hdiutil imageinfo [-stdinpass] [-plist] IMAGE\n";

namespace {

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

}  // namespace

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

}  // namespace tools
