#include "main/agent_options.h"

#include <array>
#include <cstdio>
#include <getopt.h>
#include <string_view>

namespace {

constexpr const char* kHelp =
    R"(Usage: stashwick-agent [options] [FOLDER...]

Notices USB volumes, asks once, and copies their contents into disk images. Each FOLDER arrives as the volume
of an attached stick.

  --headless             ask nobody, even on a terminal
  --answer ANSWER        answer the question with backup, later or ignore
                         (where nobody can be asked: later)
  --remember             tick "Backup this volume automatically in the future" in such an answer
  --once                 leave when each volume that arrived has been dealt with; this is also so where
                         standard input is no terminal. The exit status is 0 if every backup that was
                         wanted stands in the store, else 1
  --password-file FILE   the first line of FILE is the password for encrypted backups
  --volumes-folder DIR   each folder that is made in, moved or mounted into DIR arrives, too
  --version, --help

Backups are kept in $XDG_DATA_HOME/Stashwick 3 (~/.local/share/Stashwick 3).
)";

enum Option {
  kHeadless = 256,
  kAnswer,
  kRemember,
  kOnce,
  kPasswordFile,
  kVolumesFolder,
  kVersion,
  kHelpWanted
};

constexpr std::array<option, 9> kOptions = {{{"headless", no_argument, nullptr, kHeadless},
                                             {"answer", required_argument, nullptr, kAnswer},
                                             {"remember", no_argument, nullptr, kRemember},
                                             {"once", no_argument, nullptr, kOnce},
                                             {"password-file", required_argument, nullptr, kPasswordFile},
                                             {"volumes-folder", required_argument, nullptr, kVolumesFolder},
                                             {"version", no_argument, nullptr, kVersion},
                                             {"help", no_argument, nullptr, kHelpWanted},
                                             {nullptr, 0, nullptr, 0}}};

std::optional<int> buttonOf(std::string_view answer) {
  if (answer == "backup") return 0;
  if (answer == "later") return 1;
  if (answer == "ignore") return 2;
  return std::nullopt;
}

}  // namespace

AgentCommandLine AgentCommandLine::parse(int argc, char** argv) {
  AgentCommandLine line;
  AgentOptions& options = line.options;
  for (int found;
       !line.exitStatus && (found = ::getopt_long(argc, argv, "", kOptions.data(), nullptr)) != -1;) {
    switch (found) {
      case kHeadless:
        options.headless = true;
        break;
      case kAnswer:
        options.answer = buttonOf(optarg);
        if (options.answer) break;
        std::fprintf(stderr, "%s: --answer is backup, later or ignore, not \"%s\"\n", argv[0], optarg);
        line.exitStatus = 2;
        break;
      case kRemember:
        options.remember = true;
        break;
      case kOnce:
        options.once = true;
        break;
      case kPasswordFile:
        options.passwordFile = optarg;
        break;
      case kVolumesFolder:
        options.volumesFolder = optarg;
        break;
      case kVersion:
        std::printf("stashwick-agent %s\n", STASHWICK_VERSION);
        line.exitStatus = 0;
        break;
      case kHelpWanted:
        std::fputs(kHelp, stdout);
        line.exitStatus = 0;
        break;
      default:
        std::fputs("Try --help.\n", stderr);
        line.exitStatus = 2;
    }
  }
  options.folders.assign(argv + optind, argv + argc);
  return line;
}
