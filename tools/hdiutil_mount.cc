#include <optional>
#include <ostream>
#include <utility>

#include "base/xml_property_list.h"
#include "tools/hdiutil_verbs.h"

namespace tools {

const std::string_view kMountUsage =
    "       hdiutil mount [-stdinpass] [-noverify] [-plist] [-verbose] [-mountpoint FOLDER] IMAGE\n"
    "       hdiutil attach [-stdinpass] [-verify] [-plist] [-verbose] [-mountpoint FOLDER] IMAGE\n"
    "       hdiutil unmount|detach [-force] [-verbose] FOLDER|IMAGE\n"
    "mount looks at every checksum first, and refuses an image whose volume's name is taken; attach does "
    "not\n"
    "look, and then finds a name that is free.\n";

namespace {

using TakenName = image::MountRequest::TakenName;

// Nobody is asked for a password that is not needed: standard input may stay silent for ever.
base::Result<std::optional<base::Secret>> passwordFor(const Arguments& arguments, const HdiutilHost& host) {
  if (!arguments.has("-stdinpass")) {
    const auto image = image::OpenedImage::open(arguments.operands()[0], nullptr);
    if (image) return std::optional<base::Secret>();
    if (image.error().message != image::kAuthenticationError) return image.error();
  }
  auto password = host.readPassword();
  if (!password) return password.error();
  return std::optional(std::move(*password));
}

void reportMounted(const image::Mounted& mounted, bool asPropertyList, std::ostream& out) {
  using Dictionary = base::PropertyList::Dictionary;
  if (asPropertyList) {
    const Dictionary entity{{"mount-point", mounted.mountPoint}};
    out << base::writeXMLPropertyList(Dictionary{{"system-entities", base::PropertyList::Array{entity}}});
    return;
  }
  out << mounted.mountPoint;
  if (mounted.wasMounted) out << "\talready mounted";
  if (!mounted.mountPoint.ends_with("/" + mounted.volumeName))
    out << "\tof the volume \"" << mounted.volumeName << "\"";
  out << "\n";
}

int mountImage(const std::vector<std::string>& given, const HdiutilHost& host, image::MountRequest request) {
  const std::string& verb = given[0];
  const auto arguments = Arguments::parse(
      given, 1,
      {.withValue = {"-mountpoint"}, .alone = {"-stdinpass", "-verify", "-noverify", "-plist", "-verbose"}});
  if (!arguments) return fail(host, verb, arguments.error().message, kNotUnderstood);
  if (arguments->operands().size() != 1) return fail(host, verb, "one image path is needed", kNotUnderstood);
  auto password = passwordFor(*arguments, host);
  if (!password) return fail(host, verb, password.error().message);
  request.image = arguments->operands()[0];
  request.mountPoint = arguments->value("-mountpoint");
  if (arguments->has("-verify") || arguments->has("-noverify"))
    request.verifiesFirst = arguments->has("-verify");
  if (arguments->has("-verbose") && request.verifiesFirst) host.error << "hdiutil: verifying and mounting\n";
  const auto mounted = host.mount(request, std::move(*password));
  if (!mounted) return fail(host, verb, mounted.error().message);
  reportMounted(*mounted, arguments->has("-plist"), host.out);
  host.out.flush();
  return kDone;
}

}  // namespace

// Strict, as a restore relies on it: what comes next reads the folder of the volume's name, and what comes
// before that has deleted the only other copy.
int mount(const std::vector<std::string>& given, const HdiutilHost& host) {
  return mountImage(given, host, {.takenName = TakenName::refuse, .verifiesFirst = true});
}

int attach(const std::vector<std::string>& given, const HdiutilHost& host) {
  return mountImage(given, host, {.takenName = TakenName::findFreeOne, .verifiesFirst = false});
}

int unmount(const std::vector<std::string>& given, const HdiutilHost& host) {
  const auto arguments = Arguments::parse(given, 1, {.withValue = {}, .alone = {"-force", "-verbose"}});
  if (!arguments) return fail(host, given[0], arguments.error().message, kNotUnderstood);
  if (arguments->operands().size() != 1)
    return fail(host, given[0], "one mount point is needed", kNotUnderstood);
  const auto unmounted = host.unmount({.place = arguments->operands()[0], .force = arguments->has("-force")});
  if (!unmounted) return fail(host, given[0], unmounted.error().message);
  host.out << "unmounted: " << *unmounted << "\n";
  return kDone;
}

}  // namespace tools
