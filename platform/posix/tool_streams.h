#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "base/result.h"
#include "base/secret.h"
#include "platform/posix/file_descriptor.h"
#include "ports/tool_runs.h"

namespace platform::posix {

// The pipes of one tool run. Every end is closed to other programs, and none has the number of a standard
// stream, so that one can be put in the place of another.
class ToolStreams {
 public:
  // `input` is what the tool reads, and is referred to; null leaves standard input alone.
  static base::Result<ToolStreams> open(const std::vector<base::Secret>* input,
                                        ports::ToolRun::Capture capture);

  // Which descriptors the tool gets; -1: the agent's own.
  int toolInput() const { return toolInput_.get(); }
  int toolOutput() const { return toolOutput_.get(); }
  // To be called when the tool has been launched: its ends would keep the pipes open.
  void closeToolEnds();

  // Feeds and reads until the output is at its end, or until `grace` after the tool has ended.
  void exchange(pid_t tool, std::chrono::milliseconds grace);

  std::string takeOutput() { return std::move(output_); }

 private:
  bool feed();
  bool drain();

  FileDescriptor toolInput_;
  FileDescriptor toolOutput_;
  FileDescriptor ourInput_;
  FileDescriptor ourOutput_;
  const std::vector<base::Secret>* input_ = nullptr;
  std::size_t fedSecrets_ = 0;
  std::size_t fedBytes_ = 0;  // of the secret being fed
  std::string output_;
};

}  // namespace platform::posix
