#pragma once

#include <string>
#include <vector>

// One run of the tool inside the test's own process.
struct HdiutilRun {
  int status = 0;
  std::string out;
  std::string error;
};

struct HdiutilInput {
  std::string password{};
  bool isInterrupted = false;
};

HdiutilRun runHdiutil(const std::vector<std::string>& arguments, const HdiutilInput& input = {});
