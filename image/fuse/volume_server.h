#pragma once

#include <memory>
#include <string>

#include "base/result.h"
#include "image/volume.h"

struct fuse_session;

namespace image::fuse {

struct Served;

// Answers the kernel for a mounted volume, for reading only. A volume never changes, so the kernel may keep
// whatever it was told.
class VolumeServer {
 public:
  // The volume outlives it.
  explicit VolumeServer(const Volume& volume);
  // Unmounts.
  ~VolumeServer();
  VolumeServer(const VolumeServer&) = delete;
  VolumeServer& operator=(const VolumeServer&) = delete;

  // At an absolute path. What libfuse has to say of a failure it says on standard error.
  base::Result<void> mount(const std::string& mountPoint, const std::string& source);
  // Serves, on threads of its own, until unmounted or told to end by SIGTERM, SIGINT or SIGHUP.
  void serve();

  // From now on, and for threads that begin from now on: what asks this process to end waits until serve().
  static void blockEndingSignals();

 private:
  // Until nothing is being read ahead any more, for which the kernel may need an answer first.
  void serveWhileReadingAhead();

  std::unique_ptr<Served> served_;
  fuse_session* session_ = nullptr;
  bool handlesSignals_ = false;
};

}  // namespace image::fuse
