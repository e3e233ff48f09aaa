#include "tests/tools/hdiutil_run.h"

#include <atomic>
#include <sstream>

#include "tools/hdiutil.h"

HdiutilRun runHdiutil(const std::vector<std::string>& arguments, const HdiutilInput& input) {
  std::ostringstream out;
  std::ostringstream error;
  const std::atomic<bool> interrupted = input.isInterrupted;
  const int status = tools::hdiutil(arguments, {.out = out,
                                                .error = error,
                                                .readPassword = [&] { return base::Secret(input.password); },
                                                .errorIsTerminal = false,
                                                .cancelled = interrupted});
  return {status, out.str(), error.str()};
}
