#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/property_list.h"
#include "cli/session.h"

namespace cli {

// The disk image tool, as it is run for one backup after the other. A password is fed to it where an image
// needs one.
class ImageTool {
 public:
  explicit ImageTool(Session& session) : session_(session) {}

  // nullopt when all of the image is sound; Exit::differences when it is not.
  std::optional<Problem> verify(const Backup& backup);
  // The items in the image, or those at and below a path: dictionaries of path, kind, size, ...
  Expected<base::PropertyList::Array> list(const Backup& backup);
  // Exit::notFound when one of the paths is not in the image.
  std::optional<Problem> extract(const Backup& backup, const std::vector<std::string>& paths,
                                 const std::string& folder);
  // What differs in a folder: dictionaries of path, change, what.
  Expected<base::PropertyList::Array> compare(const Backup& backup, const std::string& folder);
  std::optional<Problem> mount(const Backup& backup);
  std::optional<Problem> unmount(const std::string& volume);
  // Whether the password opens the image.
  std::optional<Problem> tryPassword(const Backup& backup);

 private:
  struct Verb {
    std::string name;
    std::vector<std::string> options;
    std::vector<std::string> operands;  // behind the image
    std::string activity;
  };

  // The output of a run with the right password, where one is needed.
  Expected<std::string> run(const Backup& backup, const Verb& verb);
  Expected<std::string> runWith(const Session::Password& password, const Backup& backup, const Verb& verb);
  std::optional<Problem> runToEnd(const Backup& backup, const Verb& verb);
  Expected<base::PropertyList::Array> runForArray(const Backup& backup, const Verb& verb);

  Session& session_;
};

// The last line of a tool's text that says that something failed, from the reason on; nullopt when none does.
std::optional<Problem> problemIn(const std::string& text);

}  // namespace cli
