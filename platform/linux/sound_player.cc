#include "platform/linux/sound_player.h"

#include <canberra.h>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

namespace platform::freedesktop {
namespace {

constexpr std::chrono::milliseconds kPatience{200};

}  // namespace

class SoundPlayer::Worker {
 public:
  explicit Worker(ports::SystemLog& log) : log_(&log) {}

  void play(std::string file) {
    const std::lock_guard lock(mutex_);
    files_.push_back(std::move(file));
    changed_.notify_all();
  }

  // On its thread, until end() is called.
  void run() {
    ca_context* context = nullptr;
    int status = ca_context_create(&context);
    while (const auto file = next()) {
      if (status == CA_SUCCESS) {
        const int played = ca_context_play(context, 0, CA_PROP_MEDIA_FILENAME, file->c_str(),
                                           CA_PROP_MEDIA_ROLE, "event", nullptr);
        complain(played, *file);
      } else {
        complain(status, *file);
      }
    }
    if (status == CA_SUCCESS) ca_context_destroy(context);
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  // Whether the thread is at its end within the patience.
  bool end() {
    std::unique_lock lock(mutex_);
    ending_ = true;
    log_ = nullptr;
    changed_.notify_all();
    return changed_.wait_for(lock, kPatience, [this] { return ended_; });
  }

 private:
  std::optional<std::string> next() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return ending_ || !files_.empty(); });
    if (ending_) return std::nullopt;
    std::string file = std::move(files_.front());
    files_.pop_front();
    return file;
  }

  void complain(int status, const std::string& file) {
    const std::lock_guard lock(mutex_);
    if (status == CA_SUCCESS || log_ == nullptr || !complaints_.insert(status).second) return;
    log_->log("[Stashwick] The sound \"" + file + "\" cannot be played: " + ca_strerror(status));
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> files_;
  std::set<int> complaints_;
  ports::SystemLog* log_;
  bool ending_ = false;
  bool ended_ = false;
};

SoundPlayer::SoundPlayer(ports::SystemLog& log) : worker_(std::make_shared<Worker>(log)) {
  std::thread([worker = worker_] { worker->run(); }).detach();
}

SoundPlayer::~SoundPlayer() { worker_->end(); }

void SoundPlayer::play(std::string file) { worker_->play(std::move(file)); }

}  // namespace platform::freedesktop
