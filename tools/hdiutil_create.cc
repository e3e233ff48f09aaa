#include <memory>
#include <ostream>

#include "base/xml_property_list.h"
#include "image/create.h"
#include "tools/hdiutil_verbs.h"

namespace tools {

const std::string_view kCreateUsage =
    "usage: hdiutil create -fs HFS+ -volname NAME -srcfolder FOLDER [-format UDZO|UDBZ|UDRO]\n"
    "                      [-imagekey zlib-level=1..9]\n"
    "                      [-encryption AES-128|AES-256 -stdinpass] [-skipunreadable] [-puppetstrings] "
    "[-plist]\n"
    "                      [-verbose] IMAGE\n";

namespace {

// The file name without folders.
std::string lastComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path.substr(path.rfind('/') + 1);
}

std::optional<image::Format> formatNamed(std::string_view name) {
  if (name == "UDZO") return image::Format::zlib;
  if (name == "UDBZ") return image::Format::bzip2;
  if (name == "UDRO") return image::Format::raw;
  return std::nullopt;
}

// From "zlib-level=N", the one key there is.
base::Result<int> levelOf(const std::string& imageKey) {
  constexpr std::string_view kKey = "zlib-level=";
  if (!imageKey.starts_with(kKey)) return base::Error{"unknown image key " + imageKey};
  const std::string value = imageKey.substr(kKey.size());
  if (value.size() != 1 || value < "1" || value > "9")
    return base::Error{"zlib-level is a number from 1 to 9, not \"" + value + "\""};
  return value.front() - '0';
}

base::Result<image::CreateRequest> createRequest(const Arguments& arguments) {
  const auto source = arguments.value("-srcfolder");
  if (!source || source->empty()) return base::Error{"-srcfolder is missing"};
  if (arguments.operands().size() != 1 || arguments.operands()[0].empty())
    return base::Error{"one image path is needed"};
  if (arguments.value("-fs").value_or("HFS+") != "HFS+")
    return base::Error{"unknown file system " + *arguments.value("-fs")};
  const std::string name = arguments.value("-format").value_or("UDZO");
  const auto format = formatNamed(name);
  if (!format) return base::Error{"unknown format " + name};
  const auto level = levelOf(arguments.value("-imagekey").value_or("zlib-level=1"));
  if (!level) return level.error();
  if (arguments.has("-imagekey") && *format != image::Format::zlib)
    return base::Error{"zlib-level is for the format UDZO, not " + name};
  return image::CreateRequest{.source = *source,
                              .volumeName = arguments.value("-volname").value_or(lastComponent(*source)),
                              .image = arguments.operands()[0],
                              .format = *format,
                              .level = *level};
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

}  // namespace

int create(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments =
      Arguments::parse(given, 1,
                       {.withValue = {"-fs", "-volname", "-srcfolder", "-format", "-imagekey", "-encryption"},
                        .alone = {"-plist", "-verbose", "-stdinpass", "-skipunreadable", "-puppetstrings"}});
  if (!arguments) return fail(host, "create", arguments.error().message, kNotUnderstood);
  auto request = createRequest(*arguments);
  if (!request) {
    host.error << kCreateUsage;
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
    const auto display = showProgress(*arguments, progress, host);
    return image::createImage(*request);
  }();
  if (!report) return fail(host, "create", report.error().message);
  for (const auto& item : report->leftOut) host.error << "hdiutil: left out: " << item << "\n";
  reportCreated(request->image, arguments->has("-plist"), host.out);
  host.out.flush();
  return host.out ? kDone : fail(host, "create", "cannot write to standard output");
}

}  // namespace tools
