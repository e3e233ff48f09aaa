#pragma once

// Between the verbs of the disk image tool.

#include <string>
#include <string_view>
#include <vector>

#include "image/open.h"
#include "tools/arguments.h"
#include "tools/hdiutil.h"
#include "tools/progress_display.h"

namespace tools {

inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;
inline constexpr int kNotUnderstood = 64;

// A verb: its arguments, itself first.
int create(const std::vector<std::string>& given, const HdiutilHost& host);
int verify(const std::vector<std::string>& given, const HdiutilHost& host);
int imageInfo(const std::vector<std::string>& given, const HdiutilHost& host);
int list(const std::vector<std::string>& given, const HdiutilHost& host);
int extract(const std::vector<std::string>& given, const HdiutilHost& host);
int compare(const std::vector<std::string>& given, const HdiutilHost& host);
int mount(const std::vector<std::string>& given, const HdiutilHost& host);
int attach(const std::vector<std::string>& given, const HdiutilHost& host);
// Also "detach".
int unmount(const std::vector<std::string>& given, const HdiutilHost& host);

// The lines of the usage text that are about a group of verbs.
extern const std::string_view kCreateUsage;
extern const std::string_view kInspectUsage;
extern const std::string_view kMountUsage;
extern const std::string_view kContentsUsage;

// Says that the verb failed and why; gives the status.
int fail(const HdiutilHost& host, std::string_view verb, std::string_view reason, int status = kFailed);

// The image that the one operand names, opened with the password that -stdinpass says is on standard input.
base::Result<std::unique_ptr<image::OpenedImage>> openImage(const Arguments& arguments,
                                                            const HdiutilHost& host);
base::Result<std::unique_ptr<image::OpenedImage>> openImage(const std::string& path,
                                                            const Arguments& arguments,
                                                            const HdiutilHost& host);

// Shows how far the verb is until the display goes away: lines for programs when they are asked for (with
// -plist standard output belongs to the property list), a bar for a person who watches and sees no phases.
std::unique_ptr<ProgressDisplay> showProgress(const Arguments& arguments,
                                              const image::udif::Progress& progress, const HdiutilHost& host);

}  // namespace tools
