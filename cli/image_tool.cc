#include "cli/image_tool.h"

#include <ranges>

#include "base/unicode.h"
#include "base/xml_property_list.h"
#include "engine/password_text.h"

namespace cli {
namespace {

using base::PropertyList;

constexpr const char* kTool = "/usr/bin/hdiutil";
constexpr std::string_view kAuthentication = "Authentication error";
constexpr std::string_view kNoSuchItem = "there is no such item in the image";
constexpr std::string_view kLost = "hdiutil: cannot be read: ";

bool isRefusedPassword(const std::string& text) {
  const auto problem = problemIn(text);
  return problem && problem->exit == Exit::authentication;
}

// No operand is taken for an option.
std::string operand(const std::string& path) { return path.starts_with('-') ? "./" + path : path; }

}  // namespace

std::optional<Problem> problemIn(const std::string& text) {
  constexpr std::string_view kReason = "failed - ";
  const auto word = text.rfind("failed");
  if (word == text.npos) return std::nullopt;
  const auto begin = text.rfind('\n', word) + 1;
  std::string line = text.substr(begin, text.find('\n', word) - begin);
  if (const auto reason = line.find(kReason); reason != line.npos) line.erase(0, reason + kReason.size());
  return Problem{line.starts_with(kAuthentication) ? Exit::authentication : Exit::failed, line};
}

Expected<std::string> ImageTool::runWith(const Session::Password& password, const Backup& backup,
                                         const Verb& verb) {
  const auto pipe = session_.host().tools.makePipe();
  ports::ToolRun run{.launchPath = kTool,
                     .arguments = {verb.name},
                     .standardInput = pipe.get(),
                     .capture = ports::ToolRun::Capture::bothOutputs};
  if (password) {
    pipe->write(engine::passwordText(password.get()));
    run.arguments.emplace_back("-stdinpass");
  }
  pipe->closeWritingEnd();
  run.arguments.insert(run.arguments.end(), verb.options.begin(), verb.options.end());
  run.arguments.push_back(operand(backup.path()));
  for (const auto& path : verb.operands) run.arguments.push_back(operand(path));
  return session_.run(verb.activity + " " + backup.name(), run);
}

Expected<std::string> ImageTool::run(const Backup& backup, const Verb& verb) {
  if (!backup.instance->encrypted()) {
    auto output = runWith(nullptr, backup, verb);
    // A manifest tells of encryption, and can be missing.
    if (!output || !isRefusedPassword(*output)) return output;
  }
  auto password = session_.password();
  while (password) {
    auto output = runWith(*password, backup, verb);
    if (!output || !isRefusedPassword(*output)) return output;
    password = session_.otherPassword();
  }
  return password.problem();
}

std::optional<Problem> ImageTool::runToEnd(const Backup& backup, const Verb& verb) {
  const auto output = run(backup, verb);
  return output ? problemIn(*output) : output.problem();
}

Expected<PropertyList::Array> ImageTool::runForArray(const Backup& backup, const Verb& verb) {
  const auto output = run(backup, verb);
  if (!output) return output.problem();
  constexpr std::string_view kEnd = "</plist>";
  const auto begin = output->find("<?xml");
  const auto end = output->rfind(kEnd);
  if (begin == output->npos || end == output->npos)
    return problemIn(*output).value_or(Problem{Exit::failed, "the disk image tool gave no list"});
  const auto list =
      base::parseXMLPropertyList(std::string_view(*output).substr(begin, end + kEnd.size() - begin));
  const auto* array = list ? list->as<PropertyList::Array>() : nullptr;
  if (!array) return Problem{Exit::failed, "the disk image tool's list cannot be read"};
  return *array;
}

std::optional<Problem> ImageTool::verify(const Backup& backup) {
  const auto output = run(backup, {"verify", {}, {}, "Verifying"});
  if (!output) return output.problem();
  auto problem = problemIn(*output);
  if (!problem && output->find("VALID") == output->npos)
    problem = Problem{Exit::failed, "the disk image tool did not say that the image is valid"};
  const bool isJudged = output->find("hdiutil: verify failed") != output->npos;
  if (problem && problem->exit == Exit::failed && isJudged) problem->exit = Exit::differences;
  return problem;
}

Expected<PropertyList::Array> ImageTool::list(const Backup& backup) {
  return runForArray(backup, {"list", {"-long", "-plist"}, {}, "Reading"});
}

std::optional<Problem> ImageTool::extract(const Backup& backup, const std::vector<std::string>& paths,
                                          const std::string& folder) {
  const auto output = run(backup, {"extract", {"-to", operand(folder)}, paths, "Extracting from"});
  if (!output) return output.problem();
  for (const auto part : std::views::split(*output, '\n')) {
    const std::string_view line(part.begin(), part.end());
    if (line.starts_with(kLost)) session_.warn(std::string(line.substr(line.find(": ") + 2)));
  }
  auto problem = problemIn(*output);
  if (problem && problem->text.ends_with(kNoSuchItem)) problem->exit = Exit::notFound;
  return problem;
}

Expected<PropertyList::Array> ImageTool::compare(const Backup& backup, const std::string& folder) {
  return runForArray(backup, {"compare", {"-plist"}, {folder}, "Comparing with"});
}

std::optional<Problem> ImageTool::mount(const Backup& backup) {
  return runToEnd(backup, {"mount", {}, {}, "Mounting"});
}

std::optional<Problem> ImageTool::unmount(const std::string& volume) {
  const auto output = session_.run("Unmounting " + volume, {.launchPath = kTool,
                                                            .arguments = {"unmount", "/Volumes/" + volume},
                                                            .capture = ports::ToolRun::Capture::bothOutputs});
  return output ? problemIn(*output) : output.problem();
}

std::optional<Problem> ImageTool::tryPassword(const Backup& backup) {
  return runToEnd(backup, {"imageinfo", {"-plist"}, {}, "Opening"});
}

}  // namespace cli
