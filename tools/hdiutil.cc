#include "tools/hdiutil.h"

#include <array>
#include <ostream>
#include <string>

#include "tools/hdiutil_verbs.h"

namespace tools {
namespace {

struct Verb {
  std::string_view name;
  int (*run)(const std::vector<std::string>& arguments, const HdiutilHost& host);
};

constexpr std::array kVerbs{Verb{"create", create}, Verb{"verify", verify},   Verb{"imageinfo", imageInfo},
                            Verb{"list", list},     Verb{"extract", extract}, Verb{"compare", compare},
                            Verb{"mount", mount},   Verb{"attach", attach},   Verb{"unmount", unmount},
                            Verb{"detach", unmount}};

// Callers take what follows the first "<string>" for all that the tool says: a name with that in it must not
// be able to hide a failure.
std::string withoutStringElements(std::string_view reason) {
  constexpr std::string_view kElement = "<string>";
  std::string text(reason);
  for (auto at = text.find(kElement); at != text.npos; at = text.find(kElement, at))
    text.replace(at, 1, "&lt;");
  return text;
}

}  // namespace

int fail(const HdiutilHost& host, std::string_view verb, std::string_view reason, int status) {
  host.error << "hdiutil: " << verb << " failed - " << withoutStringElements(reason) << "\n";
  return status;
}

// The image that the arguments name, opened with the password that -stdinpass says is on standard input.
base::Result<std::unique_ptr<image::OpenedImage>> openImage(const Arguments& arguments,
                                                            const HdiutilHost& host) {
  if (arguments.operands().size() != 1) return base::Error{"one image path is needed"};
  return openImage(arguments.operands()[0], arguments, host);
}

base::Result<std::unique_ptr<image::OpenedImage>> openImage(const std::string& path,
                                                            const Arguments& arguments,
                                                            const HdiutilHost& host) {
  if (!arguments.has("-stdinpass")) return image::OpenedImage::open(path, nullptr);
  const auto password = host.readPassword();
  if (!password) return password.error();
  return image::OpenedImage::open(path, &*password);
}

std::unique_ptr<ProgressDisplay> showProgress(const Arguments& arguments,
                                              const image::udif::Progress& progress,
                                              const HdiutilHost& host) {
  using Style = ProgressDisplay::Style;
  const bool watches = host.errorIsTerminal && !arguments.has("-verbose");
  const auto style = arguments.has("-puppetstrings") ? Style::percentLines
                     : watches                       ? Style::bar
                                                     : Style::silent;
  const bool onOutput = style == Style::percentLines && !arguments.has("-plist");
  return std::make_unique<ProgressDisplay>(progress, style, onOutput ? host.out : host.error,
                                           host.tellProgress);
}

int hdiutil(const std::vector<std::string>& arguments, const HdiutilHost& host) {
  for (const Verb& verb : kVerbs)
    if (!arguments.empty() && arguments[0] == verb.name) return verb.run(arguments, host);
  host.error << kCreateUsage << kInspectUsage << kMountUsage << kContentsUsage;
  if (arguments.empty()) return kNotUnderstood;
  return fail(host, arguments[0], "unknown verb", kNotUnderstood);
}

}  // namespace tools
