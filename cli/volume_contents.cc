#include "cli/volume_contents.h"

#include "cli/text.h"
#include "store/file_size.h"

namespace cli {

std::string Amount::text() const {
  return countText(items, "item") + ", " + FileSize::stringFromFileSize(bytes);
}

Expected<Amount> contentsOf(Session& session, const std::string& volume) {
  Amount amount;
  const bool ended = session.perform("Looking at " + volume, [&] {
    session.around().walkedFiles.enumerate("/Volumes/" + volume, {.totalFileSize = true},
                                           [&](const ports::FileItem& item) {
                                             ++amount.items;
                                             amount.bytes += item.totalFileSize;
                                             return true;
                                           });
  });
  if (!ended) return Session::interrupted();
  return amount;
}

}  // namespace cli
